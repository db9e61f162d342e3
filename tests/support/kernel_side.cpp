#include "kernel_side.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <filesystem>

namespace tirn::test {
namespace {

constexpr uint32_t kCommandLimit = 0x900;
constexpr size_t kDeviceBytes = 4096;
constexpr size_t kCounterOffset = 0x80;

uint32_t number(PrivateCommand command) { return static_cast<uint32_t>(command); }

constinit std::atomic<int> g_errors[kCommandLimit];

long fail_as_set(uint64_t word, uint64_t, uint64_t, uint64_t, uint64_t) {
  errno = g_errors[static_cast<uint32_t>(word)].load(std::memory_order_relaxed);
  return -1;
}

// The library maps the device once in a process, so all devices of a process share one page.
int page() {
  static const int kPage = memfd_create("jiffies", MFD_CLOEXEC);
  return ftruncate(kPage, kDeviceBytes) == 0 ? kPage : -1;
}

char* map_page() {
  static void* const kMapping = mmap(nullptr, kDeviceBytes, PROT_READ | PROT_WRITE, MAP_SHARED, page(), 0);
  return static_cast<char*>(kMapping);
}

}  // namespace

KernelSide::~KernelSide() {
  for (const PrivateCommand command : replaced_) {
    zut_replace(number(command), nullptr);
  }
  zut_offer_jiffies(1);
  zut_set_jiffies_paths(nullptr, nullptr);
}

void KernelSide::replace(PrivateCommand command, zut_handler handler) {
  replaced_.insert(command);
  zut_replace(number(command), handler);
}

void KernelSide::failing(PrivateCommand command, int error) {
  g_errors[number(command)].store(error, std::memory_order_relaxed);
  replace(command, fail_as_set);
}

void KernelSide::no_jiffies() { zut_offer_jiffies(0); }

void KernelSide::jiffies_at(const std::string& sysfs, const std::string& dev) {
  static auto& kept = *new std::deque<std::string>;  // the library keeps the pointers until the process ends
  zut_set_jiffies_paths(kept.emplace_back(sysfs).c_str(), kept.emplace_back(dev).c_str());
}

JiffiesDevice::JiffiesDevice(KernelSide& kernel, uint64_t start)
    : counter_(reinterpret_cast<uint64_t*>(map_page() + kCounterOffset)) {
  folder_.write_file("sysfs/uio0/maps/map0/addr", "0x0\n");
  folder_.write_file("sysfs/uio0/maps/map0/size", "0x1000\n");
  folder_.write_file("sysfs/uio0/maps/map0/offset", "0x80\n");
  std::filesystem::create_directory(folder_.path("dev"));
  const std::string page_file = "/proc/self/fd/" + std::to_string(page());
  std::filesystem::create_symlink(page_file, folder_.path("dev/uio0"));
  set(start);
  kernel.jiffies_at(folder_.path("sysfs/"), folder_.path("dev/"));
}

}  // namespace tirn::test
