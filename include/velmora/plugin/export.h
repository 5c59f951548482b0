#pragma once

/// Marks what the shared library exports; everything else is compiled hidden.
#define VELMORA_EXPORT __attribute__((visibility("default")))
