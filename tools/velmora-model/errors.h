// What went wrong, in words for the user.
#pragma once

#include <functional>
#include <string>

namespace velmora::tool {

/// All white space as single blanks: engines write their messages over several lines.
std::string Squeeze(const std::string& text);

/// The exception that is being handled, whatever its type, as one short line. What `reason`
/// returns is added unless the line already says it: the library's own texts are fixed ones.
std::string CurrentError(const std::function<std::string()>& reason = nullptr);

}  // namespace velmora::tool
