// The header of BuiltinOpResolver in the C++ API.
#pragma once

#include <tensorflow/lite/model.h>
