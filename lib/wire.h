// The agent wire contract and the names kivd is reached by: what the port manager writes
// on an agent's pipe and what agents read there, the control pipe's name, the service's
// name and the configuration root. The manager, the agent library, kivctl and the test
// agent all take them from here, so that the two ends cannot drift apart. The texts are
// macros so that they join other literals and printf-style formats stay checked.
#pragma once

// Agent commands, one per line, each ended by CR LF. At start-up: one port line per
// port, WIRE_END_PORTS, then the lifespan line; afterwards any of remove, exit, reconfig.
#define WIRE_PORT "-Ptcp::"                   // starts every port line
#define WIRE_PORT_HANDOVER WIRE_PORT "%u@%s"  // port, base64 of the protocol information
#define WIRE_PORT_ON WIRE_PORT "%u"           // an "on" port: the agent listens itself
#define WIRE_END_PORTS "--"
#define WIRE_LIFESPAN "lifespan "   // followed by the seconds
#define WIRE_REMOVE "remove tcp::"  // followed by the port
#define WIRE_EXIT "exit"
#define WIRE_RECONFIG "reconfig"
// The lifespan line's seconds: the manager sends WIRE_DEFAULT_LIFESPAN for a service that
// names none; an agent reads up to WIRE_LIFESPAN_MAX (its milliseconds fit 32 bits). A
// number, so both ends can check theirs against it; the manager sends its decimal text.
#define WIRE_DEFAULT_LIFESPAN 86400
constexpr unsigned long WIRE_LIFESPAN_MAX = 4294967;

// The protocol information of a handed-over socket: a WSAPROTOCOL_INFOA of the 64-bit
// system (each side that knows the record asserts the size), and its length in base64
// (padded, no line breaks).
constexpr int WIRE_INFO_SIZE = 372;
constexpr int WIRE_INFO_TEXT = (WIRE_INFO_SIZE + 2) / 3 * 4;
// The flags both ends give WSASocket for a listening socket: the manager makes its own
// without overlapped I/O, and the agent rebuilds a handed-over one with the same flags, as
// a duplicated socket requires. A connection accepted on such a socket is a handle a
// program can take as its standard input and output.
constexpr unsigned WIRE_SOCKET_FLAGS = 0;
// An "on" port with a configured address: "-Ptcp:<address>:<port>", an IPv6 address in
// brackets. Its start differs from WIRE_PORT, so an agent that knows only "-Ptcp::"
// refuses the line rather than listen on every address. The address is at most
// WIRE_ADDRESS_MAX characters.
#define WIRE_PORT_AT "-Ptcp:"
constexpr int WIRE_ADDRESS_MAX = 63;
// The listen backlog of every listening socket of a port, kivd's and an "on" agent's alike.
constexpr int WIRE_LISTEN_BACKLOG = 10;
// The longest port line: port 65535 handed over, without its CR LF.
constexpr int WIRE_PORT_LINE_MAX = sizeof WIRE_PORT "65535@" - 1 + WIRE_INFO_TEXT;

// The service's name, the control pipe's name, and the configuration's registry key
// under HKEY_LOCAL_MACHINE (WIRE_ROOT_PARENT\WIRE_ROOT_KEY).
#define WIRE_SERVICE "vesk_kivd"
#define WIRE_PIPE "\\\\.\\pipe\\vesk_kivd"
#define WIRE_ROOT_PARENT "SOFTWARE\\Orvane"
#define WIRE_ROOT_KEY "Agents"
#define WIRE_ROOT "HKEY_LOCAL_MACHINE\\" WIRE_ROOT_PARENT "\\" WIRE_ROOT_KEY
