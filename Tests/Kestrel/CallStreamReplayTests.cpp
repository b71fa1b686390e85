// The call streams the fuzzer kept (one per coverage feature it found, in
// Tests/Fuzz/CallStreamCorpus) and its seeds, replayed under its model: every
// call must raise the documented error and leave bindings, handles, mappings
// and counts as the model expects. A disagreement prints the stream and
// aborts, which fails the test with the stream's text on standard error.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::vector<std::string> CallStreamSeeds();

namespace
{

void Replay(const std::string& bytes)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

// The seeds carry the streams the fuzzer once found the runtime getting wrong.
TEST(CallStreamReplay, KeptStreamsAndSeedsAgreeWithTheModel)
{
    std::vector<std::filesystem::path> files(
        std::filesystem::directory_iterator(VIREO_CALL_STREAM_CORPUS_DIR), {});
    ASSERT_GT(files.size(), 1000u) << "the kept corpus is missing";
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files)
    {
        std::ifstream in(file, std::ios::binary);
        Replay({std::istreambuf_iterator<char>(in), {}});
    }
    for (const std::string& seed : CallStreamSeeds())
        Replay(seed);
}

} // namespace
