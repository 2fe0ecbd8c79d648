// SPDX-License-Identifier: Apache-2.0
// The tool's argument handling: which engine calls it makes, what it prints and what it returns.
#include "fuzz/fuzz.h"
#include "snapshot/snapshot.h"
#include "tool/paths.h"

int toolMain(int argc, char** argv);

namespace {

using Words = std::vector<std::string>;

std::vector<Words> calls;      // of the engine, each with its arguments
std::vector<int32_t> results;  // of the calls to come, the next one last

Words call(const char* name, const Words& sources, const Words& target = {}) {
    Words words = {name};
    words.insert(words.end(), sources.begin(), sources.end());
    words.insert(words.end(), target.begin(), target.end());
    return words;
}

int32_t answer(const Words& words) {
    calls.push_back(words);
    const int32_t result = results.back();
    results.pop_back();
    return result;
}

// The engine calls that a command line asks for; none for wrong usage.
std::vector<Words> callsFor(const Words& words) {
    const auto is = [&](const char* word, size_t count) {
        return words.size() == count && words[1] == word;
    };
    const auto list = [&] {
        Words paths;
        splitDirsString(words[2], ';', paths);
        return paths;
    };
    if (is("pre", 3)) {
        return {call("pre", list())};
    }
    if (is("create", 4)) {
        return {call("create", list(), {words[3]})};
    }
    if (is("destroy", 3)) {
        return {call("destroy", {words[2]})};
    }
    const Words media = {"/data/media/0/DCIM", "/data/media/0/Documents"};
    const std::string target = "/data/media/0/snapshotdir_001";
    return is("testcase", 2)
               ? std::vector<Words>{call("pre", media), call("create", media, {target}),
                                    call("destroy", {target})}
               : std::vector<Words>();
}

int runTool(Words words, std::string& printed) {
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    char* text = nullptr;
    size_t length = 0;
    FILE* const original = stdout;
    stdout = open_memstream(&text, &length);
    const int ret = toolMain(static_cast<int>(words.size()), argv.data());
    fclose(stdout);
    stdout = original;
    printed.assign(text, length);
    free(text);
    return ret;
}

}  // namespace

int32_t PreCreateDirSnapshot(const std::vector<std::string>& dirpath) {
    return answer(call("pre", dirpath));
}
int32_t CreateDirSnapshot(const std::vector<std::string>& dirpath, std::string dstpath) {
    return answer(call("create", dirpath, {dstpath}));
}
int32_t DestroyDirSnapshot(std::string dstpath) {
    return answer(call("destroy", {dstpath}));
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::vector<int32_t> planned = {input.ConsumeIntegralInRange(-128, 127),
                                          input.ConsumeIntegralInRange(-1, 1),
                                          input.ConsumeIntegralInRange(-2, 1)};
    Words words = {"f2fs_snapshot"};
    while (input.remaining_bytes() > 0) {
        const std::string word = input.ConsumeRandomLengthString();
        words.push_back(word.substr(0, word.find('\0')));
    }
    calls.clear();
    results = planned;
    std::string printed;
    const int ret = runTool(words, printed);

    std::vector<Words> expected = callsFor(words);
    const bool is_usage = expected.empty();
    int32_t expected_ret = is_usage ? -22 : 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        expected_ret = planned[planned.size() - 1 - i];
        if (expected_ret != 0) {
            expected.resize(i + 1);
        }
    }
    REQUIRE(calls == expected && ret == expected_ret);

    const std::string verdict =
        ret == 0 ? "execute sucess\n" : "execute fail ret = " + std::to_string(ret) + "\n";
    const size_t argc = words.size();
    const std::string complaint =
        !is_usage              ? ""
        : argc < 2 || argc > 4 ? "\n\ninvalid argument number = " + std::to_string(argc) + "\n"
                               : "\n\ninvalid argument command\n";
    const std::string end = complaint + verdict;
    REQUIRE((printed.rfind("Help:\n", 0) == 0) == is_usage);
    REQUIRE(is_usage ? printed.substr(std::min(printed.size(), printed.find("\n\ninvalid"))) == end
                     : printed == end);
    return 0;
}
