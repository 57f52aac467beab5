// A client load on loopback against echo ports, as an operator's clients would put it on
// kivd through a restart or an upgrade: a new connection at a steady pace, each of which
// must get its line echoed (connect, send a line, read it back, the client closes first),
// and one long-lived connection that sends a line at its own pace and must get each one
// back. It runs on threads of its own between start() and stop().
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kt {

struct load_counts {
  int made = 0;     // new connections that connected
  int refused = 0;  // connects that failed, the live connection's included
  int cut = 0;      // closed or reset before the whole echo; the live connection ending early
  int wrong = 0;    // answers with other bytes than were sent
  int lost = 0;     // no whole answer within the answer time, nor by the end of stop()
  double worst_ms = 0, median_ms = 0;  // connect -> first byte of the new connections
  int live_sent = 0, live_echoed = 0;  // lines of the live connection
  std::string first_fault;             // what the first refused, cut, wrong or lost one saw
  // No fault of any kind: nothing refused, cut, wrong or lost.
  bool clean() const { return !refused && !cut && !wrong && !lost; }
};
// "made 40 refused 0 cut 0 wrong 0 lost 0, first byte median 1.2 ms worst 9.8 ms, live
// 12/12" and the first fault: for assert messages and notes.
std::string describe(const load_counts &c);

struct load_options {
  int port = 0;       // where the new connections go
  int live_port = 0;  // the live connection's port: 0 the same, -1 none
  int every_ms = 50;  // one new connection per period
  int live_every_ms = 200;
  // An answer not whole this long after the connect is lost. A busy two-core machine under Wine can take
  // seconds to answer while kivd hands over: slow is not lost.
  int answer_ms = 30000;
};

class client_load {
 public:
  explicit client_load(const load_options &options);
  ~client_load();  // stops
  client_load(const client_load &) = delete;
  client_load &operator=(const client_load &) = delete;

  void start();
  // The counts so far (connections still open are not counted yet).
  load_counts counts();
  // Starts no more connections, sends no more live lines, waits until each open
  // exchange has ended (at most the answer time) and the live connection has every
  // line back, closes it, and returns the totals.
  load_counts stop();

 private:
  struct exchange {
    std::thread thread;
    std::atomic<bool> done{false};
  };
  void pace();
  void one_connection(int n, exchange *self);
  void live_writer();
  void live_reader();
  void fault(int load_counts::*what, const std::string &text);

  load_options options_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;     // no more new connections nor live lines
  bool live_ending_ = false;  // the live connection's close is ours
  bool live_failed_ = false;  // the live connection saw its fault: it sends and counts no more
  std::vector<double> live_sent_at_;  // when each live line went out
  load_counts counts_;
  std::vector<double> first_byte_ms_;
  std::list<std::unique_ptr<exchange>> open_;
  std::thread pacer_, live_writer_, live_reader_;
  SOCKET live_ = INVALID_SOCKET;
  bool started_ = false, stopped_ = false;
};

}  // namespace kt
