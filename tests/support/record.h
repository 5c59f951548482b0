// The transcoding record as its tests see it.
#pragma once

#include <string>

namespace velmora::test {

inline const std::string record = "/tmp/Reelhouse/enabled";

// What is logged about it, as LogLines() gives it.
inline const std::string no_lock = "11 trans_loading.cpp:# TransLoading lock file failed";
inline const std::string no_folder = "11 lock.cpp:# Fail to create dir [/tmp/Reelhouse]";
inline const std::string not_parsed =
    "11 json_utils.cpp:# Failed to parse json file [" + record + "]";
inline const std::string not_loaded = "11 trans_loading.cpp:# ReadAndCheckAlive failed";
inline const std::string not_written =
    "11 json_utils.cpp:# failed to write json file [" + record + "]";
inline const std::string not_back =
    "11 trans_loading.cpp:# VTE - Failed to write json file [" + record + "].";
inline const std::string not_opened =
    "14 trans_loading.cpp:# TransLoading - Failed to change file mode [" + record + "]";

inline std::string Entry(int pid, bool hardware, bool offline = false) {
  const auto text = [](bool flag) { return flag ? "true" : "false"; };
  return "{\"PID\":" + std::to_string(pid) + ",\"hardware_transcode\":" + text(hardware) +
         ",\"offline_conversion\":" + text(offline) + "}";
}

}  // namespace velmora::test
