#include "Scenes.h"

void runOfflineScene(const HostOptions&) {}
