#pragma once

// Marks what libpinlamp-platform.so exports; everything else in it is hidden.
#define ZEL_API __attribute__((visibility("default")))

// Version of the binary interface; the SONAME ends in it. Raise it when a change of an installed header
// breaks agents that were built before: the layout of a class, a virtual function, a function that is gone.
#define ZEL_ABI "0.1"

// In every library that was built with this header. The host refuses an agent that has another one.
extern "C" {
[[gnu::used]] ZEL_API inline const char zelAbi[] = ZEL_ABI;
}
