// The monitoring file's text as a function of the stats lines, and the strict reader the
// other tests check real files with.
#include <gtest/gtest.h>

#include <string>

#include "service/metrics.h"
#include "tests/metrics/exposition.h"

namespace {

const std::string STATE_HEAD =
    "# HELP kivd_port_state The port's state: 1 for the state it is in, 0 for the others.\n"
    "# TYPE kivd_port_state gauge\n";
const std::string LAUNCH_HEAD =
    "# HELP kivd_port_launch_seconds Time from a connection's event to the agent's start-up "
    "lines written, in seconds.\n"
    "# TYPE kivd_port_launch_seconds histogram\n";

// The five state samples of a port's labels, the one named 1.
std::string states(const std::string &labels, const std::string &now) {
  std::string out;
  for (const char *w : {"serving", "idle", "resting", "disabled", "disabled-until-enabled"})
    out += "kivd_port_state{" + labels + ",state=\"" + w + "\"} " + (now == w ? "1" : "0") + "\n";
  return out;
}

TEST(MetricsText, LinesBecomeFamiliesWithTheirSamplesTogether) {
  const std::string web = "port=\"7000\",service=\"we\\\"b\\\\x\"",
                    echo = "port=\"7001\",service=\"echo\"";
  struct {
    const char *what;
    std::string lines, expected;
  } rows[] = {
      {"nothing", "", ""},
      {"blank lines", "\n\r\n\n", ""},
      {"kivd's line: unlabelled, an unknown item left out, families in the rows' order",
       "Kivd=42 Commands=3 Bogus=1 Uptime=7\n",
       "# HELP kivd_uptime_seconds Seconds since the counters began: kivd's start, carried across "
       "hand-overs.\n"
       "# TYPE kivd_uptime_seconds gauge\n"
       "kivd_uptime_seconds 7\n"
       "# HELP kivd_commands_total Control commands served.\n"
       "# TYPE kivd_commands_total counter\n"
       "kivd_commands_total 3\n"},
      {"a service's name with blanks: the words that are no item belong to it",
       "Service=web shop Starts=2\n",
       "# HELP kivd_service_starts_total Agents of the service started.\n"
       "# TYPE kivd_service_starts_total counter\n"
       "kivd_service_starts_total{service=\"web shop\"} 2\n"},
      {"ports grouped by family, escaped labels, the row's own label, the state as a gauge; a "
       "service's Starts is its own family; repeats, strangers and bad values left out",
       "Port=7000 Service=we\"b\\x State=serving Connections=3 Starts=2 EndsCode=1\r\n"
       "Service=echo Starts=5 Throttles=-\n"
       "Port=7001 Service=echo State=odd Connections=4 Starts=x2 Launch1ms=-1\n"
       "Port=7000 Service=again Connections=9\n"
       "Hello=1 Connections=5\n"
       "Connections=6\n",
       "# HELP kivd_port_connections_total Connections that woke kivd on the port.\n"
       "# TYPE kivd_port_connections_total counter\n"
       "kivd_port_connections_total{" +
           web +
           "} 3\n"
           "kivd_port_connections_total{" +
           echo +
           "} 4\n"
           "# HELP kivd_port_agent_starts_total Agents started for the port.\n"
           "# TYPE kivd_port_agent_starts_total counter\n"
           "kivd_port_agent_starts_total{" +
           web +
           "} 2\n"
           "# HELP kivd_port_agent_ends_total Ends of the port's agents: exit code 0, another "
           "code, "
           "an exception.\n"
           "# TYPE kivd_port_agent_ends_total counter\n"
           "kivd_port_agent_ends_total{" +
           web + ",kind=\"code\"} 1\n" + STATE_HEAD + states(web, "serving") + states(echo, "") +
           "# HELP kivd_service_starts_total Agents of the service started.\n"
           "# TYPE kivd_service_starts_total counter\n"
           "kivd_service_starts_total{service=\"echo\"} 5\n"},
      {"the launch histogram: cumulative, in seconds, +Inf, sum and count",
       "Port=7 Service=e Launch1ms=2 Launch5ms=0 Launch20ms=3 Launch100ms=0 Launch500ms=1 "
       "LaunchMore=4 LaunchMicroseconds=2500001\n"
       "Port=8 Service=e LaunchMore=1\n",
       LAUNCH_HEAD + "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"0.001\"} 2\n"
                     "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"0.005\"} 2\n"
                     "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"0.02\"} 5\n"
                     "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"0.1\"} 5\n"
                     "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"0.5\"} 6\n"
                     "kivd_port_launch_seconds_bucket{port=\"7\",service=\"e\",le=\"+Inf\"} 10\n"
                     "kivd_port_launch_seconds_sum{port=\"7\",service=\"e\"} 2.500001\n"
                     "kivd_port_launch_seconds_count{port=\"7\",service=\"e\"} 10\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"0.001\"} 0\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"0.005\"} 0\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"0.02\"} 0\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"0.1\"} 0\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"0.5\"} 0\n"
                     "kivd_port_launch_seconds_bucket{port=\"8\",service=\"e\",le=\"+Inf\"} 1\n"
                     "kivd_port_launch_seconds_sum{port=\"8\",service=\"e\"} 0\n"
                     "kivd_port_launch_seconds_count{port=\"8\",service=\"e\"} 1\n"},
      {"a global program: its label, the kind of an end, a gauge past 32 bits; a port's items "
       "are no program's",
       "Program=sy\"nc Starts=1 EndsException=2 LastExit=3221225477 Connections=4\n",
       "# HELP kivd_program_starts_total Starts of the global program.\n"
       "# TYPE kivd_program_starts_total counter\n"
       "kivd_program_starts_total{program=\"sy\\\"nc\"} 1\n"
       "# HELP kivd_program_ends_total Ends of the global program: exit code 0, another code, an "
       "exception.\n"
       "# TYPE kivd_program_ends_total counter\n"
       "kivd_program_ends_total{program=\"sy\\\"nc\",kind=\"exception\"} 2\n"
       "# HELP kivd_program_last_exit_code Exit code of the global program's last end.\n"
       "# TYPE kivd_program_last_exit_code gauge\n"
       "kivd_program_last_exit_code{program=\"sy\\\"nc\"} 3221225477\n"},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.what);
    std::string text = metrics_text(r.lines);
    EXPECT_EQ(text, r.expected);
    EXPECT_EQ(expo::parse(text).error, "");
  }
}

// Every row of the listing reaches the file, and a listing of many ports, services and
// programs in any order reads back as valid with one sample per counter.
TEST(MetricsText, AFullListingParsesWithEverySample) {
  std::string lines;
  for (int i = 0; i < 3; i++) {
    std::string n = std::to_string(i);
    lines += "Program=p" + n +
             " Starts=1 StartFailures=1 EndsZero=1 EndsCode=1 EndsException=1 "
             "Throttles=1 LastExit=1 LastExitTime=1\n";
    lines += "Port=" + std::to_string(7000 + i) + " Service=s" + n +
             " State=idle Connections=1 Starts=1 EndsZero=1 EndsCode=1 EndsException=1 "
             "RestsThrottled=1 RestsStartFailed=1 RestsException=1 RestsListenFailed=1 "
             "Disables=1 ServingSeconds=1 IdleSeconds=1 RestingSeconds=1 DisabledSeconds=1 "
             "Launch1ms=1 Launch5ms=1 Launch20ms=1 Launch100ms=1 Launch500ms=1 LaunchMore=1 "
             "LaunchMicroseconds=1\n";
    lines += "Service=s" + n +
             " Starts=1 StartFailures=1 EndsZero=1 EndsCode=1 EndsException=1 "
             "Throttles=1 LastExit=1 LastExitTime=1\n";
  }
  lines +=
      "Kivd=1 Uptime=1 Commands=1 CommandsRefused=1 ClientsHungUp=1 Events=1 EventsHeld=1 "
      "Handovers=1\n";
  expo::parsed got = expo::parse(metrics_text(lines));
  ASSERT_EQ(got.error, "");
  // Per port: 14 counters, 5 states, 6 buckets, sum and count; per service and program 8;
  // kivd's 7. The families: 25 names of the rows, the state and the launches.
  EXPECT_EQ(got.samples.size(), 3u * (14 + 5 + 6 + 2 + 8 + 8) + 7);
  EXPECT_EQ(got.types.size(), 27u);
  EXPECT_EQ(got.types["kivd_port_launch_seconds"], "histogram");
  EXPECT_EQ(got.types["kivd_port_rests_total"], "counter");
  EXPECT_EQ(got.types["kivd_service_last_exit_time_seconds"], "gauge");
  EXPECT_EQ(
      got.samples["kivd_port_rests_total{port=\"7002\",service=\"s2\",cause=\"listen_failed\"}"],
      1);
  EXPECT_EQ(got.samples["kivd_port_launch_seconds_bucket{port=\"7001\",service=\"s1\",le=0.1}"], 4);
}

// The reader finds each fault a file could have; a reader that let one pass would let the
// other tests pass on a file a collector refuses.
TEST(MetricsText, TheReaderRefusesWhatACollectorRefuses) {
  const std::string head = "# HELP a_total A.\n# TYPE a_total counter\n";
  const std::string hist = "# TYPE h histogram\n";
  struct {
    std::string text, error;
  } rows[] = {
      {head + "a_total{x=\"1\"} 1\n", ""},
      {head + "a_total 1", "0: the text does not end with a line end"},
      {"a_total 1\n", "1: sample before the TYPE of a_total"},
      {head + "a_total 1\n# HELP a_total A.\n", "4: # HELP after samples of a_total"},
      {head + "# TYPE a_total counter\na_total 1\n", "3: second TYPE of a_total"},
      {head + "# TYPE a_total2 gauge\na_total 1\na_total2 1\na_total{x=\"2\"} 1\n",
       "6: samples of a_total apart"},
      {head + "a_total{x=\"1\"} 1\na_total{x=\"1\"} 2\n", "4: second sample a_total{x=\"1\"}"},
      {head + "a_total{x=\"a\\tb\"} 1\n", "3: bad escape in a_total{x=\"a\\tb\"} 1"},
      {head + "a_total{x=\"1} 1\n", "3: label value not closed: a_total{x=\"1} 1"},
      {head + "a_total{x=\"1\",x=\"2\"} 1\n", "3: label x twice"},
      {head + "a_total one\n", "3: bad value: a_total one"},
      {head + "9a 1\n", "3: no metric name: 9a 1"},
      {"# TYPE b weird\n", "1: unknown type weird"},
      {hist + "h_bucket{le=\"1\"} 2\nh_bucket{le=\"+Inf\"} 1\nh_count 1\n",
       "3: buckets not cumulative: h_bucket{le=\"+Inf\"} 1"},
      {hist + "h_bucket{le=\"1\"} 2\nh_count 2\n",
       "0: histogram h{} without +Inf equal to its count"},
      {hist + "h_bucket{le=\"+Inf\"} 2\nh_count 3\n",
       "0: histogram h{} without +Inf equal to its count"},
  };
  for (const auto &r : rows) EXPECT_EQ(expo::parse(r.text).error, r.error) << r.text;
}

}  // namespace
