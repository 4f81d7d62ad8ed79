// Marks what callers of libfileindex may use; everything else stays hidden in the library.
#pragma once

#define ORBISK_EXPORT __attribute__((visibility("default")))
