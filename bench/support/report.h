// Reports the results: as a table, and as a JSON file.
#ifndef TIRN_BENCH_REPORT_H
#define TIRN_BENCH_REPORT_H

#include <string>
#include <utility>
#include <vector>

#include "support/runner.h"

namespace tirn::bench {

using Facts = std::vector<std::pair<std::string, std::string>>;

void print_heading(const Facts& facts);
void print(const GroupResult& result);
void print_summary(const std::vector<GroupResult>& results);

// Returns false if the file cannot be written.
bool write_json(const std::string& path, const Facts& facts, const std::vector<GroupResult>& results);

}  // namespace tirn::bench

#endif
