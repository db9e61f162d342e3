// Prints the table and writes the JSON file.
#include "support/report.h"

#include <cstdio>
#include <memory>

namespace tirn::bench {
namespace {

std::string title_of(const GroupResult& result) {
  std::string title = result.name;
  if (result.placement != Placement::none) {
    title += std::string(", cores ") + name_of(result.placement);
  }
  return title;
}

const char* mark_of(const GroupResult& result) {
  return !result.has_target() ? "" : result.passes() ? "pass" : result.is_close() ? "close" : "MISS";
}

std::string verdict_of(const GroupResult& result) {
  char text[96] = "";
  if (result.has_target()) {
    if (result.least != 0) {
      std::snprintf(text, sizeof text, "%s: %.2f, known to be %.2f to %.2f", mark_of(result), result.ratio(),
                    result.least, result.target);
    } else {
      std::snprintf(text, sizeof text, "%s: %.2f, target %.2f", mark_of(result), result.ratio(), result.target);
    }
  }
  return text;
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
    }
    out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return out + '"';
}

void write_row(std::FILE* file, const RowResult& row, const Unit& unit, const char* separator) {
  const RowNumbers& numbers = row.numbers;
  std::fprintf(file,
               "\n      {\"name\": %s, \"role\": \"%s\", \"median\": %.6g, \"p10\": %.6g, \"p90\": %.6g, "
               "\"ratio\": %.4g, \"kept\": %zu, \"tried\": %zu}%s",
               quoted(row.name).c_str(), name_of(row.role), numbers.median / unit.nanoseconds,
               numbers.p10 / unit.nanoseconds, numbers.p90 / unit.nanoseconds, numbers.ratio, numbers.kept,
               numbers.tried, separator);
}

void write_result(std::FILE* file, const GroupResult& result, const char* separator) {
  std::fprintf(file, "\n    {\"name\": %s, \"unit\": \"%s\"", quoted(result.name).c_str(), result.unit.name);
  if (!result.skipped.empty()) {
    std::fprintf(file, ", \"skipped\": %s}%s", quoted(result.skipped).c_str(), separator);
    return;
  }
  if (result.placement != Placement::none) {
    std::fprintf(file, ", \"cores\": \"%s\"", name_of(result.placement));
  }
  if (const RowResult* const best = result.best_peer()) {
    std::fprintf(file, ", \"ratio\": %.4f, \"best_peer\": %s", result.ratio(), quoted(best->name).c_str());
  }
  if (result.has_target()) {
    std::fprintf(file, ", \"target\": %g, \"mark\": \"%s\"", result.target, mark_of(result));
  }
  if (!result.remark.empty()) {
    std::fprintf(file, ", \"remark\": %s", quoted(result.remark).c_str());
  }
  std::fprintf(file, ", \"rows\": [");
  for (const RowResult& row : result.rows) {
    write_row(file, row, result.unit, &row == &result.rows.back() ? "]" : ",");
  }
  std::fprintf(file, "}%s", separator);
}

void print_row(const GroupResult& result, const RowResult& row) {
  const RowNumbers& numbers = row.numbers;
  char ratio[16] = "";
  if (row.role != Role::ours) {
    std::snprintf(ratio, sizeof ratio, "%.2f%c", numbers.ratio, &row == result.best_peer() ? '*' : ' ');
  }
  const double unit = result.unit.nanoseconds;
  std::printf("  %-4s  %-48s %9.4g %9.4g %9.4g %8s  %zu/%zu\n", name_of(row.role), row.name.c_str(),
              numbers.median / unit, numbers.p10 / unit, numbers.p90 / unit, ratio, numbers.kept, numbers.tried);
}

}  // namespace

void print_heading(const Facts& facts) {
  for (const auto& [name, value] : facts) {
    std::printf("%-10s %s\n", name.c_str(), value.c_str());
  }
  std::printf(R"(
Time of one operation: median of the undisturbed repetitions, 10th and 90th percentile, and how many of the
tried repetitions were kept. Rows of a group take turns. 'ours/it' is our time over that row's in the same turn,
the median of all turns: below 1 we are faster. A target is the highest such ratio against the fastest peer ('*');
rows marked 'info' do not count. 'close' misses it by less than can be told apart here: 3 %% on one core, 10 %% on
two.

%-56s %9s %9s %9s %8s  %s
)",
              "", "median", "p10", "p90", "ours/it", "kept");
}

void print(const GroupResult& result) {
  if (!result.skipped.empty()) {
    std::printf("%s: not measured: %s\n\n", result.name.c_str(), result.skipped.c_str());
    return;
  }
  std::printf("%-56s %s\n", (title_of(result) + ", " + result.unit.name).c_str(), verdict_of(result).c_str());
  for (const RowResult& row : result.rows) {
    print_row(result, row);
  }
  if (!result.remark.empty()) {
    std::printf("  %s\n", result.remark.c_str());
  }
  std::printf("\n");
  std::fflush(stdout);
}

void print_summary(const std::vector<GroupResult>& results) {
  size_t targets = 0;
  size_t met = 0;
  std::string rest;
  for (const GroupResult& result : results) {
    if (!result.skipped.empty()) {
      rest += "  not measured: " + result.name + '\n';
    } else if (result.has_target()) {
      ++targets;
      met += result.passes();
      rest += result.passes() ? "" : "  " + title_of(result) + " - " + verdict_of(result) + '\n';
    }
  }
  std::printf("%zu of %zu targets met\n%s", met, targets, rest.c_str());
}

bool write_json(const std::string& path, const Facts& facts, const std::vector<GroupResult>& results) {
  const auto close = [](std::FILE* file) { std::fclose(file); };
  const std::unique_ptr<std::FILE, decltype(close)> file(std::fopen(path.c_str(), "w"), close);
  if (!file) {
    return false;
  }
  std::fprintf(file.get(), "{\n  \"machine\": {");
  for (const auto& fact : facts) {
    std::fprintf(file.get(), "%s\n    %s: %s", &fact == &facts.front() ? "" : ",", quoted(fact.first).c_str(),
                 quoted(fact.second).c_str());
  }
  std::fprintf(file.get(), "\n  },\n  \"groups\": [");
  for (const GroupResult& result : results) {
    write_result(file.get(), result, &result == &results.back() ? "" : ",");
  }
  std::fprintf(file.get(), "\n  ]\n}\n");
  return std::fflush(file.get()) == 0 && !std::ferror(file.get());
}

}  // namespace tirn::bench
