// Measures parsing configuration files, looking items up, and reading text lines.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "peers/ini.h"
#include "support/bench.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"

namespace tirn::bench {
namespace {

const std::string& path() {
  static const std::string name = "/tmp/tirn_bench_" + std::to_string(getpid());
  return name;
}

// Writes the group's file. Does not register it. Returns the reason if it cannot be written.
std::string write_text(const std::string& text, const std::string& name = path()) {
  FILE* const file = std::fopen(name.c_str(), "w");
  if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
    return "cannot write " + name;
  }
  std::fclose(file);
  return {};
}

void remove_file() { unlink(path().c_str()); }

std::string name_of(const char* prefix, int number) {
  char name[32];
  std::snprintf(name, sizeof name, "%s_%04d", prefix, number);
  return name;
}

std::string ini_text(int sections, int items) {
  std::string text;
  for (int section = 0; section < sections; ++section) {
    text += "[" + name_of("section", section) + "]\n";
    for (int item = 0; item < items; ++item) {
      text +=
          name_of("item", item) + " = value number " + std::to_string(item) + " of " + std::to_string(section) + "\n";
    }
  }
  return text;
}

void add_parse_rows(std::vector<Row>& rows, std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    if (const peer_ini* const reader = peer_ini_named(name)) {
      rows.push_back({name, one_thread([reader] { reader->drop(reader->load(path().c_str())); })});
    }
  }
}

Group parse_group(const char* name, int sections, int items, double repetition, bool with_slow) {
  Group group{.name = name,
              .target = 0.5,
              .unit = kMicroseconds,
              .repetition = repetition,
              .set_up = [=] { return write_text(ini_text(sections, items)); },
              .tear_down = remove_file,
              .ours = {"kesa_cfg_init, kesa_cfg_destroy_ex", one_thread([] {
                         kesa_cfg_init(path().c_str());
                         kesa_cfg_destroy_ex(path().c_str());
                       })}};
  add_parse_rows(group.peers, {"GKeyFile"});
  add_parse_rows(group.shown, {"inih, counting", "fread"});
  if (with_slow) {  // its time grows with the square of the size
    add_parse_rows(group.shown, {"iniparser"});
  }
  return group;
}

// Compares the time for an item in a section of 200 000 items with that in a section of half as many: the search for
// a name must not get slower with more items.
Group items_group() {
  constexpr int kItems = 200000;
  const auto row = [](int items) {
    const std::string file = path() + std::to_string(items);
    return Row{std::to_string(items) + " items",
               [file](uint64_t) {
                 return timed([&file] {
                   kesa_cfg_init(file.c_str());
                   kesa_cfg_destroy_ex(file.c_str());
                 });
               },
               static_cast<uint64_t>(items)};
  };
  return {.name = "cfg/parse_item_of_200000",
          .target = 1.5,
          .set_up =
              [] {
                // The heap keeps its pages, or the larger file alone would pay for new ones.
                mallopt(M_TRIM_THRESHOLD, INT_MAX);
                mallopt(M_MMAP_THRESHOLD, 32 << 20);
                std::string reason;
                for (const int items : {kItems / 2, kItems}) {
                  reason += write_text(ini_text(1, items), path() + std::to_string(items));
                }
                return reason;
              },
          .tear_down =
              [] {
                for (const int items : {kItems / 2, kItems}) {
                  unlink((path() + std::to_string(items)).c_str());
                }
              },
          .ours = row(kItems),
          .peers = {row(kItems / 2)}};
}

Row find_row(const char* name, const std::string& section, const std::string& item) {
  const peer_ini* const reader = peer_ini_named(name);
  const std::string key = section + ":" + item;
  return {name, one_thread([=] { return reader->load(path().c_str()); },
                           [=](void* file) {
                             benchmark::DoNotOptimize(reader->find(file, section.c_str(), item.c_str(), key.c_str()));
                           })};
}

Group lookup_group(const char* name, int section_number) {
  const std::string section = name_of("section", section_number), item = name_of("item", 9);
  Group group{.name = name,
              .target = 0.7,
              .set_up =
                  [] {
                    std::string reason = write_text(ini_text(200, 10));
                    return kesa_cfg_init(path().c_str()) == 0 ? reason : "cannot read " + path();
                  },
              .tear_down =
                  [] {
                    kesa_cfg_destroy();
                    remove_file();
                  },
              .ours = {"kesa_cfg_getItemValue", one_thread([section, item] {
                         char value[64];
                         kesa_cfg_getItemValue(section.c_str(), item.c_str(), value, sizeof value);
                         benchmark::DoNotOptimize(value);
                       })}};
  if (peer_ini_named("iniparser") != nullptr) {
    group.peers.push_back(find_row("iniparser", section, item));
  }
  if (peer_ini_named("GKeyFile") != nullptr) {
    group.shown.push_back(find_row("GKeyFile", section, item));
  }
  return group;
}

// Reads `count` text lines from the start of the file, which is opened and closed untimed.
template <class Open, class Read, class Close>
Measure lines(Open open_file, Read read_line, Close close_file) {
  return [=](uint64_t count) {
    const auto file = open_file();
    Sample sample = timed([&] {
      for (uint64_t i = 0; i < count; ++i) {
        if (!read_line(file)) {
          std::abort();  // the file has fewer text lines than `count`
        }
      }
    });
    close_file(file);
    return sample;
  };
}

Group line_group(const char* name, size_t length) {
  constexpr size_t kSize = 10 << 20;
  static char line[65536];
  static char* grown = nullptr;
  static size_t room = 0;
  const auto open_stream = [] { return std::fopen(path().c_str(), "r"); };
  const auto open_fd = [] { return open(path().c_str(), O_RDONLY); };
  const uint64_t count = std::min<uint64_t>(kSize / length, 20000);
  Row ours{"kesa_readline",
           lines(
               open_fd, [](int fd) { return kesa_readline(fd, line, sizeof line) != nullptr; }, close)};
  Row fgets_row{"fgets", lines(
                             open_stream, [](FILE* file) { return std::fgets(line, sizeof line, file) != nullptr; },
                             std::fclose)};
  Row getline_row{"getline",
                  lines(
                      open_stream, [](FILE* file) { return getline(&grown, &room, file) > 0; }, std::fclose)};
  Row seek_row{
      "lseek alone, once a line",
      lines(
          open_fd, [length](int fd) { return lseek(fd, static_cast<off_t>(length), SEEK_CUR) >= 0; }, close)};
  for (Row* const row : {&ours, &fgets_row, &getline_row, &seek_row}) {
    row->count = count;
  }
  return {.name = name,
          .target = 4,
          .set_up =
              [length] {
                std::string text(kSize, 'x');
                for (size_t at = length - 1; at < text.size(); at += length) {
                  text[at] = '\n';
                }
                return write_text(text);
              },
          .tear_down = remove_file,
          .ours = ours,
          .peers = {fgets_row},
          .shown = {getline_row, seek_row}};
}

const Family configuration{[] {
  return std::vector<Group>{parse_group("cfg/parse_200x10", 200, 10, 6, true),
                            parse_group("cfg/parse_4MiB", 9600, 10, 100, false),
                            items_group(),
                            lookup_group("cfg/lookup_last", 199),
                            lookup_group("cfg/lookup_middle", 99),
                            line_group("cfg/readline_40", 40),
                            line_group("cfg/readline_200", 200),
                            line_group("cfg/readline_4000", 4000)};
}};

}  // namespace
}  // namespace tirn::bench
