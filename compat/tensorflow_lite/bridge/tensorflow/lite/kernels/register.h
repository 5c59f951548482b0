// Where the C++ API has BuiltinOpResolver.
#pragma once

#include <tensorflow/lite/model.h>
