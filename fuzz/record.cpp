// The transcoding record: whatever it holds, one transaction makes a record of it, and the next
// finds what that left.
#include <karvcore/karvcore.h>
#include <reelhouse/trans_loading.h>

#include <filesystem>
#include <fstream>

#include "support.h"

using namespace LibReelhouse;
using namespace velmora::fuzz;

/// In the place of the platform's, so that an input has the same outcome wherever it runs.
extern "C" int KLIBCProcAlive(int pid) { return pid > 0 && pid % 2 != 0 ? 1 : 0; }

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  OwnTmp();
  std::filesystem::create_directory("/tmp/Reelhouse");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = "/tmp/Reelhouse/enabled";
  std::ofstream(path).write(reinterpret_cast<const char*>(data),
                            static_cast<std::streamsize>(size));
  Json::Value entries;
  bool hardware = false;
  bool offline = false;
  {
    const TransLoading first;
    hardware = first.IsHardwareTranscoding();
    offline = first.IsOffineConverting();
    entries = first.GetEntries();
  }
  for (const Json::Value& entry : entries) {
    Require(entry.isObject() && KLIBCProcAlive(entry["PID"].asInt()) != 0, "only the living stay");
  }
  TakeLogLines();
  {
    TransLoading second;
    Require(TakeLogLines() == 0, "a record heals in one transaction");
    Require(second.GetEntries().size() == entries.size() &&
                second.IsHardwareTranscoding() == hardware &&
                second.IsOffineConverting() == offline,
            "the next transaction finds what one has left");
  }
  {
    TransLoading third;
    third.TransEnable(true);
    Require(third.SaveTransPID(7, true, true) && third.IsHardwareTranscoding() &&
                third.RemoveTransPIDLock(1),
            "an entry is added and others are removed");
  }
  bool saved = false;
  {
    TransLoading fourth;
    for (const Json::Value& entry : fourth.GetEntries()) {
      Require(entry["PID"].asInt() != 1, "the removed are gone");
      saved = saved || entry["PID"].asInt() == 7;
    }
  }
  Require(saved && TakeLogLines() == 0, "the saved is there");
  return 0;
}
