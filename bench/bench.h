// SPDX-License-Identifier: Apache-2.0
// What the in-process benchmarks share. Trees and mounts come from outside, see run.py.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

// A step that goes wrong ends the program: figures from half a run would mislead.
inline void require(bool done, const std::string& what) {
    if (!done) {
        printf("failed: %s: %s\n", what.c_str(), strerror(errno));
        exit(1);
    }
}

struct Cost {
    double wall = 0;  // microseconds
    double user = 0;
};

inline Cost now() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto clock = std::chrono::steady_clock::now().time_since_epoch();
    return {std::chrono::duration<double, std::micro>(clock).count(),
            static_cast<double>(usage.ru_utime.tv_sec) * 1e6 +
                static_cast<double>(usage.ru_utime.tv_usec)};
}

template <typename Operation>
Cost measure(Operation operation) {
    const Cost begin = now();
    operation();
    const Cost end = now();
    return {end.wall - begin.wall, end.user - begin.user};
}

// Registers a comparison of two functions. In each repetition both run once, and they take turns in
// running first. The costs are per unit.
inline void registerContest(const std::string& name, double units, std::function<Cost()> ours,
                            std::function<Cost()> theirs) {
    const auto compare = [=, ours_first = false](benchmark::State& state) mutable {
        for (auto _ : state) {
            ours_first = !ours_first;
            const Cost first = ours_first ? ours() : theirs();
            const Cost second = ours_first ? theirs() : ours();
            const Cost& our_cost = ours_first ? first : second;
            const Cost& their_cost = ours_first ? second : first;
            state.SetIterationTime(our_cost.wall * 1e-6);
            state.counters["ours"] = our_cost.wall / units;
            state.counters["theirs"] = their_cost.wall / units;
            state.counters["our_user"] = our_cost.user / units;
            state.counters["their_user"] = their_cost.user / units;
        }
    };
    benchmark::RegisterBenchmark(name.c_str(), compare)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}
