// Replays a fuzz target's committed inputs in the ordinary test run: each file named, or
// found under a directory named, on the command line is given once to the target (a
// directory that does not exist has nothing to give). A crash
// or a sanitizer report fails the test, like in the fuzzer itself; the fuzzer is not
// needed, so every build (and every compiler) replays them.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

int main(int argc, char** argv) {
   namespace fs = std::filesystem;
   std::vector<fs::path> files;
   for (int i = 1; i < argc; ++i) {
      fs::path p = argv[i];
      if (fs::is_directory(p)) {
         for (auto const& e : fs::recursive_directory_iterator(p)) {
            if (e.is_regular_file()) files.push_back(e.path());
         }
      } else if (fs::is_regular_file(p)) {
         files.push_back(p);
      }  // a target without regressions yet has no such directory
   }
   std::sort(files.begin(), files.end());
   for (auto const& f : files) {
      std::ifstream in(f, std::ios::binary);
      std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
      std::printf("%s (%zu bytes)\n", f.c_str(), bytes.size());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
   }
   std::printf("replayed %zu inputs\n", files.size());
   return files.empty() ? 1 : 0;
}
