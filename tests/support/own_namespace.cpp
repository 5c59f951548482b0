#include "support/own_namespace.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace velmora::test {
namespace {

namespace fs = std::filesystem;

std::string why_not;
int log_socket = -1;

bool Mount(const char* source, const char* target, const char* type, unsigned long flags) {
  return mount(source, target, type, flags, nullptr) == 0;
}

void Write(const char* path, const std::string& text) { std::ofstream(path) << text; }

dev_t Device(const fs::path& path) {
  struct stat status = {};
  stat(path.c_str(), &status);
  return status.st_dev;
}

bool Unshare() {
  if (unshare(CLONE_NEWNS) == 0) {
    return true;
  }
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return false;
  }
  Write("/proc/self/setgroups", "deny");
  Write("/proc/self/uid_map", "0 " + uid + " 1");
  Write("/proc/self/gid_map", "0 " + gid + " 1");
  return true;
}

/// Of /tmp, only what source and build tree lie in.
bool IsKept(const std::string& path) {
  return path != "/dev/log" && (!path.starts_with("/tmp/") ||
                                std::string(VELMORA_SOURCE_DIR "/").starts_with(path + "/") ||
                                std::string(VELMORA_BINARY_DIR "/").starts_with(path + "/"));
}

/// Puts a writable folder with the entries that are kept in the place of the machine's.
bool OwnFolder(const fs::path& folder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder);  // "." remains the machine's
  if (!Mount("none", folder.c_str(), "tmpfs", 0) ||
      (folder == "/" && chroot("/..") != 0)) {  // ".." leads into what is mounted there
    return false;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(".")) {
    const fs::path target = folder / entry.path().filename();
    if (!IsKept(target.string())) {
      continue;
    }
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), target);
      continue;
    }
    if (entry.is_directory()) {
      fs::create_directory(target);
    } else {
      Write(target.c_str(), "");
    }
    // The entry may be gone by now.
    if (!Mount(entry.path().c_str(), target.c_str(), nullptr, MS_BIND | MS_REC) &&
        errno != ENOENT) {
      return false;
    }
  }
  std::error_code gone;  // when it was in /tmp
  fs::current_path(before, gone);
  return true;
}

bool OwnLog() {
  log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  return log_socket >= 0 &&
         bind(log_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
         chmod(address.sun_path, 0666) == 0;
}

void Enter() {
  const auto done = [](const char* step, bool ok) {
    if (!ok) {
      why_not = std::string("no mount namespace of its own here (") + step + ": " +
                std::strerror(errno) + ")";
    }
    return ok;
  };
  static_cast<void>(done("unshare", Unshare()) &&
                    done("private mounts", Mount("none", "/", nullptr, MS_REC | MS_PRIVATE)) &&
                    done("/tmp", OwnFolder("/tmp")) && done("/dev", OwnFolder("/dev")) &&
                    done("/dev/log", OwnLog()));
}

}  // namespace

bool PlaceFile(const std::string& path, const std::string& text) {
  // What lies in a tmpfs that was mounted here is this process's own and may be written.
  static std::set<dev_t> own = {Device("/tmp"), Device("/dev")};
  if (fs::exists(path) && own.count(Device(path)) == 0) {
    static int count = 0;
    const std::string source = "/tmp/placed-" + std::to_string(++count);
    Write(source.c_str(), text);
    return Mount(source.c_str(), path.c_str(), nullptr, MS_BIND);
  }
  const fs::path parent = fs::path(path).parent_path();
  fs::path folder = parent;
  while (!fs::exists(folder)) {
    folder = folder.parent_path();
  }
  if (own.count(Device(folder)) == 0) {
    if (!OwnFolder(folder)) {
      return false;
    }
    own.insert(Device(folder));
  }
  fs::create_directories(parent);
  Write(path.c_str(), text);
  return fs::exists(path);
}

const std::string& WhyNoNamespace() { return why_not; }

std::vector<SyslogLine> TakeSyslog() {
  std::vector<SyslogLine> lines;
  char buffer[8192];
  ssize_t size = 0;
  while ((size = recv(log_socket, buffer, sizeof buffer, 0)) > 0) {
    // "<142>Nov 21 12:00:00 program: text"
    const std::string line(buffer, static_cast<std::size_t>(size));
    const std::size_t program = line.find(": ", line.find('>') + 1 + 15);
    lines.push_back({std::stoi(line.substr(1)), line.substr(program + 2)});
  }
  return lines;
}

}  // namespace velmora::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  velmora::test::Enter();
  return RUN_ALL_TESTS();
}
