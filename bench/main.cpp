// tirn_bench [FILTER] [--json FILE] [--list]: measures the groups whose name contains FILTER.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cold_start.h"
#include "hurn.h"
#include "support/bench.h"
#include "support/machine.h"
#include "support/report.h"
#include "support/runner.h"

namespace tirn::bench {
namespace {

struct Options {
  std::string filter;
  std::string json;
  bool list = false;
  bool wrong = false;
};

Options options_of(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--json" && i + 1 < argc) {
      options.json = argv[++i];
    } else if (argument == "--list") {
      options.list = true;
    } else if (argument.empty() || argument[0] == '-' || !options.filter.empty()) {
      options.wrong = true;
    } else {
      options.filter = argument;
    }
  }
  return options;
}

std::vector<Group> chosen_groups(const std::string& filter) {
  std::vector<Group> chosen;
  for (Group& group : all_groups()) {
    if (group.name.find(filter) != std::string::npos) {
      chosen.push_back(std::move(group));
    }
  }
  return chosen;
}

int measure_all(const Options& options) {
  const std::vector<Group> groups = chosen_groups(options.filter);
  if (groups.empty()) {
    std::fprintf(stderr, "tirn_bench: no group's name contains '%s'; --list shows them\n", options.filter.c_str());
    return EXIT_FAILURE;
  }
  if (options.list) {
    for (const Group& group : groups) {
      std::printf("%s\n", group.name.c_str());
    }
    return EXIT_SUCCESS;
  }

  Facts facts = machine_facts();
  facts.emplace_back("priority", raise_priority());
  print_heading(facts);
  hurn_loglevel_set(HURN_ALL_MODULES, HURN_WARNING);  // some set-ups log each of their steps
  std::vector<GroupResult> results;
  for (const Group& group : groups) {
    for (GroupResult& result : run(group)) {
      print(result);
      results.push_back(std::move(result));
    }
  }
  print_summary(results);
  if (!options.json.empty() && !write_json(options.json, facts, results)) {
    std::fprintf(stderr, "tirn_bench: cannot write %s\n", options.json.c_str());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace tirn::bench

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], tirn::bench::kColdStart) == 0) {
    return tirn::bench::report_cold_start();
  }
  const tirn::bench::Options options = tirn::bench::options_of(argc, argv);
  if (options.wrong) {
    std::fprintf(stderr, "usage: tirn_bench [FILTER] [--json FILE] [--list]\n");
    return EXIT_FAILURE;
  }
  return tirn::bench::measure_all(options);
}
