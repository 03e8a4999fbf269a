#include "Scenes.h"

void runGuardScene(const HostOptions&) {}
