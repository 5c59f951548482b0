#include "support/own_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
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

/// Binds every entry of `from` to the same name in `to`, except the one named `left_out`.
bool BindEntries(const fs::path& from, const fs::path& to, const char* left_out) {
  for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
    const fs::path target = to / entry.path().filename();
    if (target.filename() == left_out) {
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
    // In /proc an entry may be gone by now, with its process.
    if (!Mount(entry.path().c_str(), target.c_str(), nullptr, MS_BIND | MS_REC) &&
        errno != ENOENT) {
      return false;
    }
  }
  return true;
}

/// Puts a writable folder with the same entries in the place of the machine's. For "/" that leaves
/// an empty folder in /tmp, which is in use.
bool OwnFolder(const std::string& folder, const char* left_out = "") {
  const char* const aside = "/tmp/own-folder";
  fs::create_directory(aside);
  if (folder == "/") {
    const fs::path before = fs::current_path();
    return Mount("none", aside, "tmpfs", 0) && BindEntries("/", aside, left_out) &&
           chroot(aside) == 0 && chdir(before.c_str()) == 0 && umount2(aside, MNT_DETACH) == 0;
  }
  return Mount(folder.c_str(), aside, nullptr, MS_BIND | MS_REC) &&
         Mount("none", folder.c_str(), "tmpfs", 0) && BindEntries(aside, folder, left_out) &&
         umount2(aside, MNT_DETACH) == 0 && (rmdir(aside) == 0 || errno == EBUSY);
}

/// An empty /tmp; source and build tree stay where they are even when that is below /tmp.
bool OwnTmp() {
  const char* const kept[] = {VELMORA_SOURCE_DIR, VELMORA_BINARY_DIR};
  int folders[std::size(kept)];
  for (std::size_t i = 0; i < std::size(kept); ++i) {
    folders[i] = open(kept[i], O_PATH | O_CLOEXEC);
  }
  if (!Mount("none", "/tmp", "tmpfs", 0)) {
    return false;
  }
  for (std::size_t i = 0; i < std::size(kept); ++i) {
    if (!fs::exists(kept[i])) {
      fs::create_directories(kept[i]);
      const std::string before = "/proc/self/fd/" + std::to_string(folders[i]);
      if (!Mount(before.c_str(), kept[i], nullptr, MS_BIND | MS_REC)) {
        return false;
      }
    }
    close(folders[i]);
  }
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
  const char* step = "unshare";
  const auto done = [&step](const char* name, bool ok) {
    step = name;
    return ok;
  };
  if (!done("unshare", Unshare()) ||
      !done("private mounts", Mount("none", "/", nullptr, MS_REC | MS_PRIVATE)) ||
      !done("/tmp", OwnTmp()) || !done("/dev", OwnFolder("/dev", "log")) ||
      !done("/dev/log", OwnLog())) {
    why_not = std::string("no mount namespace of its own here (") + step + ": " +
              std::strerror(errno) + ")";
  }
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
