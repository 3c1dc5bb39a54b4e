// open_file: the input is a whole file, opened as if a user had found it on disk.

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Korvane::Fuzzing::visitLogFile({data, data + size});
    return 0;
}
