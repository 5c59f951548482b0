#pragma once

/// Marks what the shared library exports; everything else is hidden.
#define VELMORA_EXPORT __attribute__((visibility("default")))

/// Marks the private functions of exported classes, which are not exported.
#define VELMORA_LOCAL __attribute__((visibility("hidden")))
