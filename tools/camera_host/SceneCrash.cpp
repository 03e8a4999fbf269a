#include "Scenes.h"

void runCrashScene(const HostOptions&) {}
