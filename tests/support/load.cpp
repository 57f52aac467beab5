#include "tests/support/load.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace kt {

namespace {
using clock = std::chrono::steady_clock;

double now_ms() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return static_cast<double>(t.QuadPart) * 1000.0 / static_cast<double>(frequency.QuadPart);
}

// The test process starts programs with inheritance on (an installer, kivctl): a client
// socket one of them inherited would keep the connection open past the client's close.
SOCKET client_socket() {
  SOCKET s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET)  // systems before the flag refuse it
    s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
  if (s != INVALID_SOCKET)
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  return s;
}

// 0, or the socket error of the connect.
int connect_loopback(SOCKET s, int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<u_short>(port));
  if (s == INVALID_SOCKET) return WSAGetLastError();
  return connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? 0 : WSAGetLastError();
}

// 0, or the socket error of the send.
int send_all(SOCKET s, const std::string &text) {
  for (size_t at = 0; at < text.size();) {
    int n = send(s, text.data() + at, static_cast<int>(text.size() - at), 0);
    if (n <= 0) return WSAGetLastError();
    at += static_cast<size_t>(n);
  }
  return 0;
}

// Whether s has something to read (data, its end or an error) within ms.
bool readable(SOCKET s, int ms) {
  fd_set r;
  FD_ZERO(&r);
  FD_SET(s, &r);
  timeval tv = {ms / 1000, (ms % 1000) * 1000};
  return select(0, &r, nullptr, nullptr, &tv) > 0;
}

void statistics(std::vector<double> times, load_counts *c) {
  if (times.empty()) return;
  std::sort(times.begin(), times.end());
  c->worst_ms = times.back();
  c->median_ms = times[times.size() / 2];
}

std::string visible(const std::string &text) {
  std::string out;
  for (char ch : text) out += ch == '\n' ? std::string("\\n") : std::string(1, ch);
  return out;
}
}  // namespace

std::string describe(const load_counts &c) {
  char text[256];
  snprintf(text, sizeof text,
           "made %d refused %d cut %d wrong %d lost %d, first byte median %.1f ms worst %.1f ms, "
           "live %d/%d",
           c.made, c.refused, c.cut, c.wrong, c.lost, c.median_ms, c.worst_ms, c.live_echoed,
           c.live_sent);
  return c.first_fault.empty() ? text : std::string(text) + "; first fault: " + c.first_fault;
}

client_load::client_load(const load_options &options) : options_(options) {
  WSADATA w;
  WSAStartup(MAKEWORD(2, 2), &w);
  if (options_.live_port == 0) options_.live_port = options_.port;
}

client_load::~client_load() {
  stop();
  WSACleanup();
}

void client_load::fault(int load_counts::*what, const std::string &text) {
  counts_.*what += 1;
  if (counts_.first_fault.empty()) counts_.first_fault = text;
}

void client_load::start() {
  if (started_) return;
  started_ = true;
  if (options_.live_port > 0) {
    live_ = client_socket();
    int e = connect_loopback(live_, options_.live_port);
    if (e) {
      fault(&load_counts::refused, "live connection: connect failed, error " + std::to_string(e));
      if (live_ != INVALID_SOCKET) closesocket(live_);
      live_ = INVALID_SOCKET;
    } else {
      live_writer_ = std::thread(&client_load::live_writer, this);
      live_reader_ = std::thread(&client_load::live_reader, this);
    }
  }
  pacer_ = std::thread(&client_load::pace, this);
}

void client_load::pace() {
  std::unique_lock<std::mutex> l(lock_);
  clock::time_point next = clock::now();
  for (int n = 0; !stopping_; n++) {
    for (auto it = open_.begin(); it != open_.end();) {
      if (!(*it)->done) {
        ++it;
        continue;
      }
      (*it)->thread.join();
      it = open_.erase(it);
    }
    open_.push_back(std::unique_ptr<exchange>(new exchange));
    exchange *x = open_.back().get();
    x->thread = std::thread(&client_load::one_connection, this, n, x);
    // A late tick starts one connection, not a burst to catch up.
    next = std::max(next + std::chrono::milliseconds(options_.every_ms), clock::now());
    wake_.wait_until(l, next, [&] { return stopping_; });
  }
}

void client_load::one_connection(int n, exchange *self) {
  const std::string name = "connection " + std::to_string(n);
  const std::string line = "new " + std::to_string(n) + "\n";
  SOCKET s = client_socket();
  double begun = now_ms(), first = -1;
  int e = connect_loopback(s, options_.port);
  int load_counts::*outcome = nullptr;
  std::string seen;
  if (e) {
    outcome = &load_counts::refused;
    seen = name + ": connect failed, error " + std::to_string(e);
  } else {
    {
      std::lock_guard<std::mutex> l(lock_);
      counts_.made++;
    }
    std::string back;
    if ((e = send_all(s, line)) != 0) {
      outcome = &load_counts::cut;
      seen = name + ": send failed, error " + std::to_string(e);
    }
    while (!outcome && back.size() < line.size()) {
      int left = options_.answer_ms - static_cast<int>(now_ms() - begun);
      if (left <= 0 || !readable(s, left)) {
        outcome = &load_counts::lost;
        seen = name + ": no whole answer within " + std::to_string(options_.answer_ms) +
               " ms, got \"" + visible(back) + "\"";
        break;
      }
      char buf[256];
      int got = recv(s, buf, sizeof buf, 0);
      if (got <= 0) {
        outcome = &load_counts::cut;
        seen = name +
               (got == 0 ? ": closed" : ": reset, error " + std::to_string(WSAGetLastError())) +
               " after \"" + visible(back) + "\"";
        break;
      }
      if (first < 0) first = now_ms() - begun;
      back.append(buf, static_cast<size_t>(got));
      if (line.compare(0, back.size(), back) != 0) {
        outcome = &load_counts::wrong;
        seen = name + ": sent \"" + visible(line) + "\", got \"" + visible(back) + "\"";
      }
    }
  }
  if (s != INVALID_SOCKET) closesocket(s);  // the client closes first
  {
    std::lock_guard<std::mutex> l(lock_);
    if (first >= 0) first_byte_ms_.push_back(first);
    if (outcome) fault(outcome, seen);
  }
  self->done = true;  // the last touch: the pacer may join and free it from now on
}

void client_load::live_writer() {
  std::unique_lock<std::mutex> l(lock_);
  clock::time_point next = clock::now();
  for (int n = 0; !stopping_ && !live_failed_; n++) {
    std::string line = "live " + std::to_string(n) + "\n";
    counts_.live_sent++;
    live_sent_at_.push_back(now_ms());
    l.unlock();
    int e = send_all(live_, line);
    l.lock();
    if (e) {
      if (!live_failed_)
        fault(&load_counts::cut, "live connection: send of line " + std::to_string(n) +
                                     " failed, error " + std::to_string(e));
      live_failed_ = true;
      wake_.notify_all();
      break;
    }
    next = std::max(next + std::chrono::milliseconds(options_.live_every_ms), clock::now());
    wake_.wait_until(l, next, [&] { return stopping_ || live_failed_; });
  }
}

void client_load::live_reader() {
  std::string buf;
  for (;;) {
    if (!readable(live_, 250)) {
      std::lock_guard<std::mutex> l(lock_);
      if (live_ending_ || live_failed_) return;
      size_t waiting = static_cast<size_t>(counts_.live_echoed);
      if (waiting < live_sent_at_.size() &&
          now_ms() - live_sent_at_[waiting] > options_.answer_ms) {
        fault(&load_counts::lost, "live connection: line " + std::to_string(waiting) +
                                      " not echoed within " + std::to_string(options_.answer_ms) +
                                      " ms");
        live_failed_ = true;
        wake_.notify_all();
        return;
      }
      continue;
    }
    char part[512];
    int got = recv(live_, part, sizeof part, 0);
    std::lock_guard<std::mutex> l(lock_);
    if (got <= 0) {
      if (!live_ending_ && !live_failed_)
        fault(&load_counts::cut,
              "live connection: " +
                  (got == 0 ? std::string("closed")
                            : "reset, error " + std::to_string(WSAGetLastError())) +
                  " after " + std::to_string(counts_.live_echoed) + " lines");
      live_failed_ = true;
      wake_.notify_all();
      return;
    }
    buf.append(part, static_cast<size_t>(got));
    for (size_t end; (end = buf.find('\n')) != std::string::npos;) {
      std::string line = buf.substr(0, end + 1),
                  want = "live " + std::to_string(counts_.live_echoed) + "\n";
      buf.erase(0, end + 1);
      if (line != want) {
        fault(&load_counts::wrong,
              "live connection: expected \"" + visible(want) + "\", got \"" + visible(line) + "\"");
        live_failed_ = true;
        wake_.notify_all();
        return;
      }
      counts_.live_echoed++;
    }
    wake_.notify_all();
  }
}

load_counts client_load::counts() {
  std::lock_guard<std::mutex> l(lock_);
  load_counts c = counts_;
  statistics(first_byte_ms_, &c);
  return c;
}

load_counts client_load::stop() {
  if (started_ && !stopped_) {
    stopped_ = true;
    {
      std::lock_guard<std::mutex> l(lock_);
      stopping_ = true;
    }
    wake_.notify_all();
    pacer_.join();
    for (auto &x : open_) x->thread.join();  // each ends within its answer time
    open_.clear();
    if (live_ != INVALID_SOCKET) {
      live_writer_.join();
      {
        std::unique_lock<std::mutex> l(lock_);
        wake_.wait_for(l, std::chrono::milliseconds(options_.answer_ms),
                       [&] { return live_failed_ || counts_.live_echoed >= counts_.live_sent; });
        if (!live_failed_ && counts_.live_echoed < counts_.live_sent)
          fault(&load_counts::lost,
                "live connection: " + std::to_string(counts_.live_sent - counts_.live_echoed) +
                    " lines not echoed by the end");
        live_ending_ = true;
      }
      shutdown(live_, SD_SEND);  // the client closes first
      live_reader_.join();
      closesocket(live_);
      live_ = INVALID_SOCKET;
    }
  }
  return counts();
}

}  // namespace kt
