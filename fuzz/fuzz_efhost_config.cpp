// efhost's configuration reader target: arbitrary text as the YAML file.
// The reader must answer with a configuration or an error naming the file,
// never throw, crash or hang.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    efhost::Config config;
    std::string error;
    if (!efhost::parse_config(text, "fuzz.yaml", config, error) &&
        error.rfind("fuzz.yaml", 0) != 0) {
        std::fprintf(stderr, "\n==== fuzz check failed ====\nan error that does not name the file: %s\n",
                     error.c_str());
        std::abort();
    }
    return 0;
}
