// Symbol visibility of the library's external interface.
#pragma once

#define ZUDEBUG_EXPORT __attribute__((visibility("default")))
