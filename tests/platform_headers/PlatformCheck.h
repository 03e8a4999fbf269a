// What the two translation units of the platform-headers check hand each other.
#pragma once

#include <stddef.h>

// Lines a platform call stack of the calling thread prints through a printer of this
// program (LibraryFirst.cpp, where the library's headers come before the platform's).
size_t platformStackLines();

// The library's call-stack printer handed to the platform's CallStack::print.
void printStackThroughLibrary(const char* prefix);
