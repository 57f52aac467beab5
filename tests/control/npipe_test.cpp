#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "toolkit/runtime/mwait.h"
#include "control/npipe.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace {

std::string pipe_name() {
  return "\\\\.\\pipe\\kivd_npipe_test_" + std::to_string(GetCurrentProcessId());
}

struct client {
  HANDLE h;
  client() {
    h = CreateFileA(pipe_name().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                    nullptr);
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (h != INVALID_HANDLE_VALUE) SetNamedPipeHandleState(h, &mode, nullptr, nullptr);
  }
  ~client() { close(); }
  void close() {
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
    h = INVALID_HANDLE_VALUE;
  }
  void send(const std::string &m) {
    DWORD put = 0;
    ASSERT_TRUE(WriteFile(h, m.data(), static_cast<DWORD>(m.size()), &put, nullptr))
        << GetLastError();
  }
  // One message (every message of these tests fits the buffer).
  std::string receive() {
    char buf[4096];
    DWORD got = 0;
    if (!ReadFile(h, buf, sizeof buf, &got, nullptr))
      return "<error " + std::to_string(GetLastError()) + ">";
    return std::string(buf, got);
  }
};

// One wake-up of the server: the pipe number that woke, or 0 after the time-out.
int wake(DWORD timeout = 10000) {
  DWORD index = 0;
  return npipe_wait(0, nullptr, timeout, FALSE, mwait_any, &index);
}

// Serves wake-ups until pipe `p` delivers something other than KIV_EAGAIN.
int read_from(int p, char *buffer, int size) {
  for (int i = 0; i < 50; i++) {
    int w = wake();
    if (w == 0) continue;
    int rc = npipe_read(w, buffer, size, nullptr);
    if (w == p && rc != KIV_EAGAIN) return rc;
  }
  return -1000;
}

// A new client, collected and greeted as the main loop does; returns its pipe number.
int accept_client(client &c) {
  EXPECT_NE(c.h, INVALID_HANDLE_VALUE);
  char buf[16];
  for (int i = 0; i < 10; i++) {
    int w = wake();
    int connected = 0;
    int rc = npipe_read(w, buf, sizeof buf, &connected);
    if (connected) {
      EXPECT_EQ(rc, KIV_EAGAIN);
      npipe_write(w, "KIVD v0.1", 9);
      EXPECT_EQ(c.receive(), "KIVD v0.1");
      return w;
    }
  }
  return 0;
}

std::vector<std::string> lines;  // the log's lines while it is captured

// One server through a run of clients, each step leaving both instances listening.
TEST(Npipe, OneServerAndItsClients) {
  // Set up once only. Without a client (pipes 1 and 2 are the listening instances), a
  // write is refused and a close leaves the instance listening.
  ASSERT_EQ(npipe_setup_server(2, pipe_name().c_str(), nullptr), 0);
  EXPECT_EQ(npipe_setup_server(2, pipe_name().c_str(), nullptr), KIV_EBUSY);
  for (int p : {0, 3, -1, 1}) EXPECT_EQ(npipe_write(p, "x", 1), KIV_ENOTREADY) << p;
  EXPECT_EQ(npipe_close(1), 0);
  EXPECT_EQ(npipe_state(0), NPIPE_LISTEN);
  EXPECT_EQ(npipe_state(1), NPIPE_LISTEN);
  char buf[1024];
  {
    SCOPED_TRACE("messages of every size, an oversized one drained; replies in order");
    client c;
    int p = accept_client(c);
    ASSERT_GE(p, 1);
    // Sizes about the 512-byte limit, each message of its own letter: an oversized one is
    // drained whole, never read as the next message.
    int sizes[] = {2, 0, 512, 513, 5, 5000, 4};
    for (int i = 0; i < 7; i++) {
      std::string sent(sizes[i], static_cast<char>('a' + i));
      // A big message fills the pipe's buffer: the client writes it from a thread.
      std::thread writer([&] { c.send(sent); });
      int rc = read_from(p, buf, 512);
      writer.join();
      EXPECT_EQ(rc, sizes[i] > 512 ? KIV_EOVERFLOW : sizes[i]) << "message of " << sizes[i];
      EXPECT_EQ(std::string(buf, std::max(rc, 0)), rc < 0 ? "" : sent);
    }
    std::vector<std::string> sent, got;
    for (int i = 0; i < 60; i++) sent.push_back(std::to_string(i) + std::string(i * 7, '.'));
    for (auto &m : sent) EXPECT_EQ(npipe_write(p, m.data(), static_cast<int>(m.size())), 0);
    std::thread reader([&] {
      for (size_t i = 0; i < sent.size(); i++) got.push_back(c.receive());
    });
    // The writes that wait for earlier ones are started inside npipe_wait.
    for (int i = 0; i < 200 && got.size() < sent.size(); i++) wake(20);
    reader.join();
    EXPECT_EQ(got, sent);
    npipe_close(p);
    EXPECT_EQ(npipe_state(p - 1), NPIPE_LISTEN);
  }
  {
    SCOPED_TRACE(
        "a client that vanishes loses its queued replies only; a last message "
        "before a hang-up is still delivered");
    int p;
    {
      client c;
      p = accept_client(c);
      ASSERT_GE(p, 1);
      std::string big(900, 'q');
      for (int i = 0; i < 10; i++) npipe_write(p, big.data(), static_cast<int>(big.size()));
    }
    EXPECT_EQ(read_from(p, buf, sizeof buf), KIV_EOF);
    EXPECT_EQ(npipe_state(p - 1), NPIPE_LISTEN);
    client next;
    int q = accept_client(next);  // the greeting is the first thing it reads
    ASSERT_GE(q, 1);
    npipe_write(q, "+", 1);
    EXPECT_EQ(next.receive(), "+");
    next.send("quit -Q");
    next.close();
    int rc = read_from(q, buf, sizeof buf);
    ASSERT_EQ(rc, 7);
    EXPECT_EQ(std::string(buf, rc), "quit -Q");
    // The hang-up itself surfaces now or at the next wake-up; the instance listens again.
    if (npipe_state(q - 1) != NPIPE_LISTEN) {
      EXPECT_EQ(read_from(q, buf, sizeof buf), KIV_EOF);
    }
    EXPECT_EQ(npipe_state(q - 1), NPIPE_LISTEN);
    EXPECT_EQ(npipe_write(q, "+", 1), KIV_ENOTREADY);
  }
  {
    // Short replies reach the count of queued messages long before their bytes reach the
    // byte bound.
    SCOPED_TRACE("a client that never reads is hung up on by the count of its replies");
    client c;
    int p = accept_client(c);
    ASSERT_GE(p, 1);
    int rc = 0;
    uint64_t hung_up = kiv_counter(WIRE_STAT_KIVD_HUNG_UP);
    for (int i = 0; i < 2 * NPIPE_QUEUE_MESSAGES && rc == 0; i++) rc = npipe_write(p, "+", 1);
    EXPECT_EQ(rc, KIV_EOVERFLOW);
    EXPECT_EQ(npipe_state(p - 1), NPIPE_LISTEN);
    EXPECT_EQ(hung_up + 1, kiv_counter(WIRE_STAT_KIVD_HUNG_UP));
  }
  SCOPED_TRACE("two clients at once and the status line");
  client a;
  int pa = accept_client(a);
  kiv_logsink = [](const char *line) { lines.push_back(line); };
  kiv_loglevel = 3;
  client b;
  int pb = accept_client(b);
  kiv_loglevel = 0;
  kiv_logreset();
  ASSERT_GE(pa, 1);
  ASSERT_GE(pb, 1);
  EXPECT_NE(pa, pb);
  std::string want = std::to_string(pb - 1) + " -> CONNECTED  [" + "CC]";
  bool seen = false;
  for (auto &l : lines) seen |= l.find(want) != std::string::npos;
  EXPECT_TRUE(seen) << (lines.empty() ? "no lines" : lines.back());
  a.send("from a");
  b.send("from b");
  int got = 0;
  for (int i = 0; i < 20 && got < 2; i++) {
    int w = wake();
    int rc = npipe_read(w, buf, sizeof buf, nullptr);
    if (rc < 0) continue;
    EXPECT_EQ(std::string(buf, rc), w == pa ? "from a" : "from b");
    got++;
  }
  EXPECT_EQ(got, 2);
  // A third client finds every instance busy.
  client third;
  EXPECT_EQ(third.h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PIPE_BUSY));
  npipe_close(pa);
  npipe_close(pb);
}

}  // namespace
