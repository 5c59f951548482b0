#pragma once

namespace velmora::plugin::network::guards {

/// Whether XNNPACK may be used for a model's graphs. In version 2.20 of the engine, it crashes the
/// process on the following, which the engine runs without it, and newer versions run with it:
///   - a variable that an operator writes after another has read it;
///   - an operator whose results are only used by operators whose own results are never used;
///   - weights that are unpacked into another shape than the file states.
/// `data` is a file that the engine has verified.
bool IsGraphForXnnpack(const char* data);

}  // namespace velmora::plugin::network::guards
