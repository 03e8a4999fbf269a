#include "Scenes.h"

void runSnapshotScene(const HostOptions&) {}
