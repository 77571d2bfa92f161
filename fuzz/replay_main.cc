// Replays inputs through a fuzz target's entry point with the ordinary
// compiler: every file named, and every file of every directory named. An
// input that once made a target fail is kept in the corpus and replayed by
// `make test` for good.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void replay(const std::filesystem::path& path, int* count) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  ++*count;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg = std::filesystem::absolute(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(arg))
        if (entry.is_regular_file()) replay(entry.path(), &count);
    } else {
      replay(arg, &count);
    }
  }
  std::fprintf(stderr, "replayed %d inputs\n", count);
  return count > 0 ? 0 : 1;
}
