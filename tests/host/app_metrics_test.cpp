// The metrics exposition's parts: the text writer and the reading of a
// plug-in's untrusted report.

#include <gtest/gtest.h>

#include <cmath>

#include "app/PluginMetricsReport.h"
#include "app/PrometheusText.h"

namespace {

using vlm::host::MetricType;
using vlm::host::parsePluginMetrics;
using vlm::host::PrometheusText;

TEST(PrometheusTextTest, EscapesGroupsFamiliesMakesBucketsCumulativeAndWritesValuesExactly)
{
    PrometheusText out;
    const auto first = out.family("velmora_a_total", MetricType::counter, "back\\slash\nnewline \"quoted\"");
    vlm::host::HistogramSnapshot h;
    h.bounds = {0.001, 0.5, 2};
    h.counts = {3, 0, 4};
    h.overflow = 2;
    h.sum = 7.25;
    out.addHistogram(out.family("velmora_lat_seconds", MetricType::histogram, "l"), {{"front", "http"}}, h);
    out.add(first, {{"path", "C:\\x \"y\"\nz"}}, 1);
    // Asked for again later: the sample still lands under the first TYPE line.
    out.add(out.family("velmora_a_total", MetricType::counter, "ignored"), {}, 3);

    EXPECT_EQ(out.text(), "# HELP velmora_a_total back\\\\slash\\nnewline \"quoted\"\n"
                          "# TYPE velmora_a_total counter\n"
                          "velmora_a_total{path=\"C:\\\\x \\\"y\\\"\\nz\"} 1\n"
                          "velmora_a_total 3\n"
                          "# HELP velmora_lat_seconds l\n"
                          "# TYPE velmora_lat_seconds histogram\n"
                          "velmora_lat_seconds_bucket{front=\"http\",le=\"0.001\"} 3\n"
                          "velmora_lat_seconds_bucket{front=\"http\",le=\"0.5\"} 3\n"
                          "velmora_lat_seconds_bucket{front=\"http\",le=\"2\"} 7\n"
                          "velmora_lat_seconds_bucket{front=\"http\",le=\"+Inf\"} 9\n"
                          "velmora_lat_seconds_sum{front=\"http\"} 7.25\n"
                          "velmora_lat_seconds_count{front=\"http\"} 9\n");
    EXPECT_EQ(vlm::host::formatMetricValue(HUGE_VAL) + vlm::host::formatMetricValue(std::nan("")), "+InfNaN");
    EXPECT_EQ(vlm::host::formatMetricValue(18446744073709551615.0), "1.8446744073709552e+19");
    EXPECT_EQ(vlm::host::formatMetricValue(1e15 + 1) + " " + vlm::host::formatMetricValue(0.1 + 0.2),
              "1000000000000001 0.30000000000000004");
}

TEST(PluginMetricsReportTest, KeepsWhatFollowsTheFormatAndDropsAndCountsEveryLineThatBreaksIt)
{
    const std::string head = "# HELP c_total Requests.\n# TYPE c_total counter\n"
                             "c_total{front=\"http\",outcome=\"-1\"} 4\n# a comment\n\n"
                             "# TYPE g gauge\ng{k=\"head\"} -2.5\n# TYPE h histogram\n";
    const auto good = parsePluginMetrics(head);
    EXPECT_EQ(good.rejectedLines, 0u);
    ASSERT_EQ(good.families.size(), 3u);
    EXPECT_EQ(good.families[0].help, "Requests.");
    ASSERT_EQ(good.families[0].samples.size(), 1u);
    EXPECT_EQ(good.families[0].samples[0].labels, (vlm::host::MetricLabels{{"front", "http"}, {"outcome", "-1"}}));
    EXPECT_EQ(good.families[0].samples[0].value, 4);
    EXPECT_EQ(good.families[1].samples.at(0).value, -2.5);
    std::string manyLabels = "g{l0=\"v\"";
    for (std::size_t i = 1; i <= vlm::pluginMetricsLabelLimit; ++i)
        manyLabels += ",l" + std::to_string(i) + "=\"v\"";
    const std::string broken[] = {
        manyLabels + "} 1",                                                         // one label too many
        "g{a=\"" + std::string(vlm::pluginMetricsLabelValueLimit + 1, 'x') + "\"} 1",  // a value too long
        "undeclared 1",                          // no TYPE line before
        "# TYPE counter_without_suffix counter",  // counters end in _total
        "# TYPE g gauge",                        // declared twice
        "# TYPE Upper gauge",                    // names are lower case
        "# TYPE x summary",                      // unknown type
        "c_total -1",                            // a counter does not go down
        "c_total NaN",                           // nor is it NaN
        "g 0x10",                                // not a decimal number
        "g inf",                                 // only +Inf is infinity
        "g 1 1700000000000",                     // no time stamps
        "g  1",                                  // one space
        "g{a=\"1\"} 1\ng{a=\"1\"} 2",             // the second repeats the series
        "g{a=\"x\\q\"} 1",                       // unknown escape
        "g{a=\"open} 1",                         // unterminated value
        "g{a=\"1\",} 1",                         // trailing comma
        "g{a=\"1\",a=\"2\"} 1",                  // label twice
        "g{plugin=\"other\"} 1",                 // the host's own label
        "g{le=\"1\"} 1",                         // le outside a bucket
        "g{__name__=\"x\"} 1",                   // not a lower-case name
        "h_bucket{x=\"1\"} 1",                   // a bucket without le
        "h_bucket{le=\"abc\"} 1",                // le not a number
    };
    for (const std::string& line : broken) {
        const auto report = parsePluginMetrics(head + line + "\n");
        std::uint64_t samples = 0;
        for (const auto& family : report.families)
            samples += family.samples.size();
        const bool repeated = line.find('\n') != std::string::npos;
        EXPECT_EQ(report.rejectedLines, 1u) << line.substr(0, 60);
        EXPECT_EQ(samples, repeated ? 3u : 2u) << line.substr(0, 60);
    }
}

TEST(PluginMetricsReportTest, DropsHistogramSeriesThatDoNotAddUpAndSamplesBeyondTheBound)
{
    const std::string head = "# TYPE h histogram\n";
    const std::string good = "h_bucket{s=\"ok\",le=\"1\"} 1\nh_bucket{s=\"ok\",le=\"+Inf\"} 2\n"
                             "h_sum{s=\"ok\"} 1\nh_count{s=\"ok\"} 2\n";
    // Falling counts, no +Inf bucket, a count that is not +Inf's, no sum.
    const char* broken[] = {
        "h_bucket{s=\"b\",le=\"1\"} 5\nh_bucket{s=\"b\",le=\"+Inf\"} 2\nh_sum{s=\"b\"} 1\nh_count{s=\"b\"} 2\n",
        "h_bucket{s=\"b\",le=\"1\"} 1\nh_sum{s=\"b\"} 1\nh_count{s=\"b\"} 1\n",
        "h_bucket{s=\"b\",le=\"+Inf\"} 2\nh_sum{s=\"b\"} 1\nh_count{s=\"b\"} 3\n",
        "h_bucket{s=\"b\",le=\"+Inf\"} 1\nh_count{s=\"b\"} 1\n",
    };
    for (const char* series : broken) {
        const auto report = parsePluginMetrics(head + good + series);
        ASSERT_EQ(report.families.size(), 1u);
        // The broken series goes whole; the good one stays.
        EXPECT_EQ(report.families[0].samples.size(), 4u) << series;
        for (const auto& sample : report.families[0].samples)
            EXPECT_EQ(sample.labels.at(0).second, "ok") << series;
        EXPECT_GT(report.rejectedLines, 0u) << series;
    }

    std::string flood = "# TYPE g gauge\n";
    for (std::size_t i = 0; i < vlm::pluginMetricsSampleLimit + 10; ++i)
        flood += "g{i=\"" + std::to_string(i) + "\"} 1\n";
    const auto report = parsePluginMetrics(flood);
    EXPECT_EQ(report.families.at(0).samples.size(), vlm::pluginMetricsSampleLimit);
    EXPECT_EQ(report.rejectedLines, 10u);
}

} // namespace
