// SPDX-License-Identifier: Apache-2.0
// splitDirsString: the pieces are the text between the runs of delimiters, in order.
#include "fuzz/fuzz.h"
#include "tool/paths.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const char delimiter = input.ConsumeIntegral<char>();
    const std::string text = input.ConsumeRemainingBytesAsString();

    std::vector<std::string> pieces = {"kept"};
    splitDirsString(text, delimiter, pieces);

    std::string joined;
    for (size_t i = 1; i < pieces.size(); ++i) {
        REQUIRE(!pieces[i].empty() && pieces[i].find(delimiter) == std::string::npos);
        joined += pieces[i] + delimiter;
    }
    std::string squeezed;
    for (const char byte : text + delimiter) {
        if (byte != delimiter || (!squeezed.empty() && squeezed.back() != delimiter)) {
            squeezed += byte;
        }
    }
    REQUIRE(pieces[0] == "kept");
    REQUIRE(joined == squeezed);
    return 0;
}
