// The stops of the tour about commands, configuration files and CPU partitions.
#include <tirn/tirn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "tour.h"

namespace tirnctl {
namespace {

// A temporary folder for the files of a stop. The destructor removes the files and the folder.
class Folder {
 public:
  Folder() { is_there_ = mkdtemp(path_) != nullptr; }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    for (const char* name : {"machine.ini", "override.ini", "product.ini"}) {
      unlink(path(name).c_str());
    }
    rmdir(path_);
  }
  explicit operator bool() const { return is_there_; }
  std::string path(const char* name) const { return std::string(path_) + "/" + name; }

 private:
  char path_[32] = "/tmp/tirnctl.XXXXXX";
  bool is_there_;
};

void copy_lines(const char* from, std::ofstream& to) {
  std::ifstream source(from);
  to << source.rdbuf();
}

// Writes what this machine says about itself into one configuration file.
void write_machine_file(const std::string& path) {
  std::ofstream file(path);
  file << "[os_release]\n";
  copy_lines("/etc/os-release", file);
  for (const char* name : {"ostype", "osrelease", "hostname", "threads-max"}) {
    std::ifstream source(std::string("/proc/sys/kernel/") + name);
    std::string value;
    std::getline(source, value);
    file << (std::strcmp(name, "ostype") == 0 ? "[kernel]\n" : "");
    file << (std::strcmp(name, "threads-max") == 0 ? "threads_max" : name) << " = " << value << "\n";
  }
}

bool show_item(const char* section, const char* item) {
  char value[256];
  const bool is_there = kesa_cfg_getItemValue(section, item, value, sizeof value) == 0;
  std::printf("    [%s] %-12s %s\n", section, item, is_there ? value : "(not there)");
  return is_there;
}

}  // namespace

bool show_commands() {
  constexpr char kHarmful[] = "echo kept; echo smuggled in";
  constexpr char kPlain[] = "uname -srm";
  std::printf("    kesa_system_s(\"%s\"): %d, refused for its semicolon\n", kHarmful,
              kesa_system_s(kHarmful, nullptr));
  FILE* const stream = kesa_popen_s(kPlain, "r", nullptr);
  char line[128] = "";
  const bool was_read = stream != nullptr && std::fgets(line, sizeof line, stream) != nullptr;
  const int status = stream != nullptr ? kesa_pclose(stream) : -1;
  std::printf("    kesa_popen_s(\"%s\"): status %d, %s", kPlain, status, was_read ? line : "no output\n");
  return was_read && status == 0;
}

bool show_configuration() {
  const Folder folder;
  if (!folder) {
    return false;
  }
  const std::string machine = folder.path("machine.ini");
  const std::string above = folder.path("override.ini");
  write_machine_file(machine);
  std::ofstream(above) << "[os_release]\nNAME=the file that was registered last\n";
  const uint64_t start = now();
  if (kesa_cfg_init(machine.c_str()) != 0) {
    return false;
  }
  std::printf("    parsed %s in %.1f us\n", machine.c_str(), static_cast<double>(now() - start) / 1000);
  bool is_good =
      show_item("os_release", "NAME") && show_item("os_release", "VERSION_ID") && show_item("kernel", "osrelease");
  is_good &= kesa_cfg_setItemValue("kernel", "osrelease", "changed in memory alone") == 0;
  is_good &= show_item("kernel", "osrelease");
  is_good &= kesa_cfg_init(above.c_str()) == 0;
  std::printf("    with %s over it:\n", above.c_str());
  is_good &= show_item("os_release", "NAME") && show_item("os_release", "VERSION_ID");
  is_good &= kesa_cfg_destroy_ex(above.c_str()) == 0 && kesa_cfg_destroy_ex(machine.c_str()) == 0;
  return is_good;
}

// On a node, a script writes this file; here the stop writes it in the same form.
bool show_partitions() {
  const Folder folder;
  const std::string path = folder.path("product.ini");
  const int cpus = static_cast<int>(num_online_cpus());
  const int half = (cpus + 1) / 2;
  std::ofstream(path) << "[CPU_PARTITION]\ngroup_num=1\n[GROUP_0]\npartition_num=3\n"
                      << "partition_0=ALL:0:0-" << cpus - 1 << "\npartition_1=IOD_NORMAL:1:0-" << half - 1
                      << "\npartition_2=SERVICE:2:" << cpus - half << "-" << cpus - 1 << "\n";
  if (!folder || kesa_cpum_init(path.c_str()) != 0) {
    return false;
  }
  kesa_cpum_dbg_show(print_indented);
  uint64_t mask[16]{};
  const int result = kesa_cpum_parse_cpumask("*/SERVICE,GROUP_0/IOD_NORMAL", mask);
  std::printf("    */SERVICE,GROUP_0/IOD_NORMAL are the CPUs 0x%llx\n", static_cast<unsigned long long>(mask[0]));
  return result == 0;
}

}  // namespace tirnctl
