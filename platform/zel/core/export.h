#pragma once

// Marks what libpinlamp-platform.so exports; everything else in it is hidden.
#define ZEL_API __attribute__((visibility("default")))
