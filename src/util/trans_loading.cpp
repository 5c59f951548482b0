#include <karvcore/karvcore.h>
#include <reelhouse/json_utils.h>
#include <reelhouse/platform_utils.h>
#include <reelhouse/trans_loading.h>
#include <sys/stat.h>
#include <syslog.h>

#include <exception>
#include <string_view>
#include <utility>

namespace LibReelhouse {
namespace {

using librh::util::PlatformUtils;

// Both the lock file and the data file.
constexpr char kRecordPath[] = "/tmp/Reelhouse/enabled";

std::uint32_t SoftwareLimit() {
  if (PlatformUtils::GetInst()->IsMonaco()) {
    return 0;
  }
  if (PlatformUtils::GetInst()->IsRTD1296()) {
    return 0;
  }
  return 1;
}

std::uint32_t HardwareLimit() {
  if (PlatformUtils::GetInst()->IsSupportVaapi()) {
    return 100;
  }
  if (PlatformUtils::GetInst()->IsSupportHWTranscode()) {
    return 1;
  }
  return 0;
}

// Entries are objects, but other programs may have written anything into them. These functions
// return null unless the member exists and has the right type.

const Json::Value* Flag(const Json::Value& entry, std::string_view name) {
  const Json::Value* const flag = entry.find(name.data(), name.data() + name.size());
  return flag != nullptr && flag->isBool() ? flag : nullptr;
}

const Json::Value* Pid(const Json::Value& entry) {
  constexpr std::string_view kName = "PID";
  const Json::Value* const pid = entry.find(kName.data(), kName.data() + kName.size());
  return pid != nullptr && pid->isInt() ? pid : nullptr;
}

bool IsAlive(const Json::Value& entry) {
  const Json::Value* const pid = entry.isObject() ? Pid(entry) : nullptr;
  return pid != nullptr && KLIBCProcAlive(pid->asInt()) != 0;
}

}  // namespace

TransLoading::TransLoading()
    : Lock(kRecordPath, true),
      loading(Json::arrayValue),
      software_limit(SoftwareLimit()),
      hardware_limit(HardwareLimit()) {
  if (IsLockSucess()) {
    if (!ReadAndCheckAlive()) {
      syslog(LOG_ERR, "%s:%d ReadAndCheckAlive failed", __FILE_NAME__, __LINE__);
    }
  } else {
    syslog(LOG_ERR, "%s:%d TransLoading lock file failed", __FILE_NAME__, __LINE__);
  }
}

TransLoading::~TransLoading() {
  if (!IsLockSucess()) {
    return;
  }
  bool written = false;
  try {
    written = WriteJsonToFileWithoutLock(kRecordPath, loading);
  } catch (const std::exception&) {
    // Out of memory.
  }
  if (!written) {
    syslog(LOG_ERR, "%s:%d VTE - Failed to write json file [%s].", __FILE_NAME__, __LINE__,
           kRecordPath);
  }
  if (chmod(kRecordPath, 0666) != 0) {
    // Not an error: the record may belong to another user.
    syslog(LOG_INFO, "%s:%d TransLoading - Failed to change file mode [%s]", __FILE_NAME__,
           __LINE__, kRecordPath);
  }
}

bool TransLoading::ReadAndCheckAlive() try {
  Json::Value record(Json::arrayValue);
  struct stat status;
  if (stat(kRecordPath, &status) != 0) {
    return false;
  }
  if (!ReadJsonFromFileWithoutLock(kRecordPath, record)) {
    if (status.st_size != 0) {
      return false;
    }
    // The lock has just created the file.
    record = Json::Value(Json::arrayValue);
  }
  if (!record.isArray()) {
    return false;
  }
  for (Json::Value& entry : record) {
    if (IsAlive(entry)) {
      loading.append(std::move(entry));
    }
  }
  return true;
} catch (const std::exception&) {
  return false;
}

bool TransLoading::IsHardwareTranscoding() const {
  if (!IsLockSucess()) {
    syslog(LOG_ERR, "%s:%d TransEnable need to lock file", __FILE_NAME__, __LINE__);
    return false;
  }
  for (const Json::Value& entry : loading) {
    const Json::Value* const flag = Flag(entry, "hardware_transcode");
    if (flag != nullptr && flag->asBool()) {
      return true;
    }
  }
  return false;
}

bool TransLoading::IsOffineConverting() const {
  if (!IsLockSucess()) {
    syslog(LOG_ERR, "%s:%d TransEnable need to lock file", __FILE_NAME__, __LINE__);
    return false;
  }
  for (const Json::Value& entry : loading) {
    const Json::Value* const flag = Flag(entry, "offline_conversion");
    if (flag != nullptr && flag->asBool()) {
      return true;
    }
  }
  return false;
}

bool TransLoading::CheckTransEnable(bool hardware) const {
  const std::uint32_t limit = hardware ? hardware_limit : software_limit;
  std::uint32_t count = 1;  // the requested one
  for (const Json::Value& entry : loading) {
    const Json::Value* const flag = Flag(entry, "hardware_transcode");
    if (flag != nullptr && flag->asBool() == hardware) {
      ++count;
    }
  }
  return limit >= count;
}

bool TransLoading::SoftwareTransEnable() const { return CheckTransEnable(false); }

bool TransLoading::HardwareTransEnable() const {
  if (!PlatformUtils::GetInst()->IsSupportHWTranscode()) {
    return false;
  }
  return CheckTransEnable(true);
}

bool TransLoading::TransEnable(bool hardware) {
  if (!IsLockSucess()) {
    syslog(LOG_ERR, "%s:%d TransEnable need to lock file", __FILE_NAME__, __LINE__);
    return false;
  }
  if (hardware) {
    if (!PlatformUtils::GetInst()->IsSupportHWTranscode()) {
      return false;
    }
    if (loading.empty()) {
      return true;
    }
    return HardwareTransEnable();
  }
  // An idle machine always accepts one software transcode, even if the limit is 0.
  if (loading.empty()) {
    return true;
  }
  return SoftwareTransEnable();
}

bool TransLoading::SaveTransPID(int pid, bool hardware, bool offline) try {
  if (!IsLockSucess()) {
    syslog(LOG_ERR, "%s:%d TransEnable need to lock file", __FILE_NAME__, __LINE__);
    return false;
  }
  Json::Value entry(Json::objectValue);
  entry["PID"] = pid;
  entry["hardware_transcode"] = hardware;
  entry["offline_conversion"] = offline;
  loading.append(std::move(entry));
  return true;
} catch (const std::exception&) {
  return false;
}

bool TransLoading::RemoveTransPIDLock(int pid) try {
  if (!IsLockSucess()) {
    syslog(LOG_ERR, "%s:%d TransEnable need to lock file", __FILE_NAME__, __LINE__);
    return false;
  }
  Json::Value remaining(Json::arrayValue);
  for (const Json::Value& entry : loading) {
    const Json::Value* const entry_pid = Pid(entry);
    if (entry_pid != nullptr && entry_pid->asInt() != pid) {
      remaining.append(entry);
    }
  }
  loading.swap(remaining);
  return true;
} catch (const std::exception&) {
  return false;
}

void GetMachineTranscodeAndRemux(bool& canTranscode, bool& canRemux, bool& canHardwareTranscode) {
  canTranscode = false;
  canRemux = false;
  canHardwareTranscode = false;
  PlatformUtils* const machine = PlatformUtils::GetInst();
  if (!machine->IsRTD1296()) {
    canTranscode = true;
    canRemux = true;
    canHardwareTranscode = machine->IsSupportHWTranscode();
    return;
  }
  canRemux = true;
  if (!machine->IsSupportOMX()) {
    return;
  }
  KLIBCExec("/usr/lib/firmware/rtd1296/factory.bin", "load", nullptr, nullptr, nullptr);
  if (KLIBCFileExist("/run/tmp/factory/FACTORY") != 0) {
    return;  // factory mode, which must not transcode
  }
  canTranscode = true;
  canHardwareTranscode = true;
}

bool ForceFFmpegTranscoding() {
  if (PlatformUtils::GetInst()->IsSupportOMX()) {
    return false;
  }
  return !PlatformUtils::GetInst()->IsMonaco();
}

}  // namespace LibReelhouse
