/* Marks what a platform library offers to its callers. */
#pragma once

#define NIMO_EXPORT __attribute__((visibility("default")))
