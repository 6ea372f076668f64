#pragma once

#include <benchmark/benchmark.h>

#include <QString>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

/// How figures are taken and where they go.
namespace figures
{
/// Seconds that `work` takes, on average of `times` runs.
template <typename Work> double timed(Work work, int times = 1)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; i++)
        work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / times;
}

inline double median(std::vector<double> samples)
{
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

struct Pair {
    double figure;
    double limit;
    double ratio; // of what was measured back to back
};

/// Samples figure and limit in turn, as often as `state` iterates, so that a noisy machine harms both alike: medians.
template <typename Figure, typename Limit> Pair compare(benchmark::State &state, Figure figure, Limit limit)
{
    std::vector<double> figureSamples;
    std::vector<double> limitSamples;
    std::vector<double> ratios;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        limitSamples.push_back(limit());
        figureSamples.push_back(figure());
        ratios.push_back(figureSamples.back() / limitSamples.back());
        state.SetIterationTime(figureSamples.back());
    }
    return {median(figureSamples), median(limitSamples), median(ratios)};
}

/// How a figure is shown: seconds or bytes times `scale`, in `name`.
struct Unit {
    const char *name;
    double scale;
};
constexpr Unit perSecond{"/s", 1};
constexpr Unit milliseconds{"ms", 1e3};
constexpr Unit microseconds{"µs", 1e6};
constexpr Unit megabytes{"MB", 1e-6};
constexpr Unit percent{"%", 100};

// Rows of the table. The first four show the limit beside the figure.
void atLeast(double share, const QString &what, const QString &limit, Unit unit, const Pair &measured);
void within(double times, const QString &what, const QString &limit, Unit unit, const Pair &measured);
void withinMilliseconds(double distance, const QString &what, const QString &limit, const Pair &measured);
void shown(const QString &what, const QString &limit, Unit unit, const Pair &measured); // nothing is wanted of it
void under(double most, const QString &what, Unit unit, double measured);

/// The line of a process's status that begins so ("VmRSS": what is resident now, "VmHWM": at the most), in bytes.
double memory(const QByteArray &name, const QString &process = QStringLiteral("self"));

/// One point of how a duty grows with the number of `what` ("peers" or "packets").
void grows(const QString &duty, const QString &what, qint64 count, double seconds);
} // namespace figures

/// Registers a benchmark of this file that takes `samples` samples.
#define FIGURE(function, samples) BENCHMARK(function)->Iterations(samples)->UseManualTime()
