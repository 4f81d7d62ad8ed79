// Marks what callers of libfileindex may use; everything else stays hidden in the library.
#pragma once

#define ORBISK_EXPORT __attribute__((visibility("default")))

/// Marks what a class that is exported as a whole keeps to the library.
#define ORBISK_LOCAL __attribute__((visibility("hidden")))
