#pragma once

/// Marks what the shared library exports; everything else is compiled hidden.
#define VELMORA_EXPORT __attribute__((visibility("default")))

/// Marks the private functions of an exported class, which no host can call.
#define VELMORA_LOCAL __attribute__((visibility("hidden")))
