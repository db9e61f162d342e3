// Measures running and screening commands.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/bench.h"
#include "support/data.h"
#include "tirn/str.h"

namespace tirn::bench {
namespace {

// Returns the path of the shell that the library uses here. The C library's system and popen use /bin/sh, which may
// be another one.
const char* shell() {
  static char path[PATH_MAX];
  FILE* const stream = kesa_popen("readlink /proc/$$/exe;:", "r");
  if (stream == nullptr || std::fgets(path, sizeof path, stream) == nullptr) {
    std::abort();
  }
  kesa_pclose(stream);
  path[std::strcspn(path, "\n")] = '\0';
  return path;
}

bool is_bin_sh(const char* path) {
  char sh[PATH_MAX];
  return realpath("/bin/sh", sh) != nullptr && std::strcmp(sh, path) == 0;
}

constexpr char kCommand[] = "true";

void by_vfork(const char* path) {
  const pid_t child = vfork();
  if (child == 0) {
    execl(path, "sh", "-c", kCommand, static_cast<char*>(nullptr));
    _exit(127);
  }
  waitpid(child, nullptr, 0);
}

void by_spawn(const char* path) {
  char sh[] = "sh", c[] = "-c", command[] = "true";
  char* const arguments[] = {sh, c, command, nullptr};
  pid_t child;
  if (posix_spawn(&child, path, nullptr, nullptr, arguments, environ) == 0) {
    waitpid(child, nullptr, 0);
  }
}

template <auto open, auto close>
void read_echo() {
  FILE* const stream = open("echo x", "r");
  char line[8];
  benchmark::DoNotOptimize(std::fgets(line, sizeof line, stream));
  close(stream);
}

Measure ours() {
  return one_thread([] { benchmark::DoNotOptimize(kesa_system(kCommand)); });
}

// A child that is as small as this process is at the start, and stays so while this process grows. It measures on
// request.
struct SmallProcess {
  int to[2], from[2];
  void start() {
    if (pipe(to) != 0 || pipe(from) != 0) {
      std::abort();
    }
    if (fork() == 0) {
      close(to[1]);
      for (uint64_t count; read(to[0], &count, sizeof count) == sizeof count;) {
        const Sample sample = ours()(count);
        if (write(from[1], &sample, sizeof sample) != sizeof sample) {
          break;
        }
      }
      _exit(0);
    }
    close(to[0]);
    close(from[1]);
  }
  Sample measure(uint64_t count) const {
    Sample sample{0, true};
    if (write(to[1], &count, sizeof count) != sizeof count ||
        read(from[0], &sample, sizeof sample) != sizeof sample) {
      std::abort();
    }
    return sample;
  }
};
SmallProcess small;

std::string grow() {
  constexpr size_t kSize = size_t{2} << 30;
  const auto free_bytes = static_cast<size_t>(sysconf(_SC_AVPHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (free_bytes < kSize + kSize / 4) {
    return "less than 2.5 GiB of memory are free";
  }
  small.start();
  void* const memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return "2 GiB of memory cannot be had";
  }
  std::memset(memory, 1, kSize);
  return "";
}

Group screen(size_t length) {
  const auto prepare = [length] {
    static RandomBuffers buffers(length + 1);
    char* const text = reinterpret_cast<char*>(buffers.next());
    std::memset(text, 'x', length);
    text[length] = '\0';
    return text;
  };
  return {.name = "command/screen_" + std::to_string(length),
          .target = 1.0,
          .ours = {"isDangerousCmd", one_thread(prepare,
                                                [](const char* text) {
                                                  benchmark::DoNotOptimize(text);
                                                  benchmark::DoNotOptimize(isDangerousCmd(text, nullptr));
                                                })},
          .peers = {{"2 GB/s", [length](uint64_t count) { return Sample{static_cast<double>(count * length) / 2}; }}},
          .shown = {{"strcspn", one_thread(prepare, [](const char* text) {
                       benchmark::DoNotOptimize(text);
                       benchmark::DoNotOptimize(std::strcspn(text, KESA_COMMAND_SPECIAL));
                     })}}};
}

const Family commands{[] {
  const char* const path = shell();
  const bool is_same = is_bin_sh(path);
  Group run{.name = "command/system",
            .target = is_same ? 0.95 : 1.03,
            .unit = kMicroseconds,
            .repetition = 10,
            .ours = {"kesa_system", ours()},
            .shown = {{"posix_spawn of the same shell", one_thread([path] { by_spawn(path); })}}};
  Group stream{.name = "command/popen",
               .target = is_same ? 1.0 : 0,
               .unit = kMicroseconds,
               .repetition = 10,
               .ours = {"kesa_popen, read, kesa_pclose", one_thread(read_echo<kesa_popen, kesa_pclose>)}};
  Row system_row{"system", one_thread([] { benchmark::DoNotOptimize(std::system(kCommand)); })};
  Row popen_row{"popen, read, pclose", one_thread(read_echo<popen, pclose>)};
  Row vfork_row{"bare vfork and execl of the same shell", one_thread([path] { by_vfork(path); })};
  if (is_same) {
    run.peers = {std::move(system_row)};
    run.shown.push_back(std::move(vfork_row));
    stream.peers = {std::move(popen_row)};
  } else {  // /bin/sh is another shell, with another speed
    run.peers = {std::move(vfork_row)};
    system_row.name += ", with /bin/sh";
    popen_row.name += ", with /bin/sh";
    run.shown.push_back(std::move(system_row));
    stream.shown = {std::move(popen_row)};
  }
  Group big{.name = "command/system_with_2GiB",
            .target = 1.1,
            .unit = kMicroseconds,
            .repetition = 10,
            .set_up = grow,
            .ours = {"kesa_system, 2 GiB touched", ours()},
            .peers = {{"kesa_system, small process", [](uint64_t count) { return small.measure(count); }}}};
  return std::vector<Group>{std::move(run), std::move(stream), std::move(big), screen(64), screen(1024)};
}};

}  // namespace
}  // namespace tirn::bench
