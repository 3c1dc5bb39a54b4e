// open_file: the input is a whole file, handed to the open constructor as if a user had found
// it on disk. A file that opens gets every read, a few frames of playback and a slice.

#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Korvane::Fuzzing;
    const std::filesystem::path file = scratchDir() / "input.log";
    writeFile(file, data, size);
    visitLogFile(file, false);
    clearScratchDir();
    return 0;
}
