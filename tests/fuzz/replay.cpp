// The main function of a fuzz target in builds without libFuzzer: runs the saved inputs in a folder.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int, char** argv) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator(file), {}};
    bytes.reserve(1);  // an empty input has an address too
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++count;
  }
  return count > 0 ? 0 : 1;
}
