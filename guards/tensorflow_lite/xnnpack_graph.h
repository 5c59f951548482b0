#pragma once

namespace velmora::plugin::network::guards {

/// Whether XNNPACK can be asked for its part of a model's graphs. It ends the process at some that
/// the engine runs without it, as of 2.20; newer ones of the engine run them with it:
///   - a variable that an operator writes when another has read it;
///   - an operator whose results only go into such as nothing comes of;
///   - weights that are unpacked into another shape than the file says.
/// `data` is a file that the engine has verified.
bool IsGraphForXnnpack(const char* data);

}  // namespace velmora::plugin::network::guards
