// echo-agent: sends back every byte each client sends, on every port the port manager
// hands it. The agent library serves the ports (a thread per port, a thread per client)
// and follows the manager's commands and the lifespan; the agent is its echo.
//
// Exit codes: 0 on "exit", when the pipe closes and after `lifespan` seconds without a
// client (the manager then listens again on the same sockets); 1 when it has no port it
// can serve (the manager then opens new sockets); 2 when the start-up cannot be read.
#include "agent/kivagent.h"

namespace {

void echo(kivagent_client *client) {
  char buf[4096];
  for (;;) {
    int n = recv(client->sock, buf, sizeof buf, 0);
    if (n <= 0) break;
    int sent = 0;
    while (sent < n) {
      int m = send(client->sock, buf + sent, n - sent, 0);
      if (m <= 0) break;
      sent += m;
    }
    if (sent < n) break;
  }
  closesocket(client->sock);
}

}  // namespace

int main(int argc, char **argv) {
  kivagent_serving serving = {};
  serving.size = sizeof serving;
  serving.name = "echo-agent";
  serving.client = echo;
  // "exit" ends it at once, clients still connected cut off: the process takes them.
  ExitProcess(static_cast<UINT>(kivagent_serve(argc, argv, &serving)));
}
