#include "Scenes.h"

void runModulesScene(const HostOptions&) {}
