#pragma once

// The descriptors of a table server. Each is closed on exec. A system call that fails while they are made is logged
// with errno and ends the process.

struct Pipe {
  int read_end;
  int write_end;
};

// A TCP socket that listens on every address, on a port of the system's choice, which `port` gets in host byte order.
int OpenListeningSocket(unsigned short& port);

// A UDP socket that may broadcast and shares the discovery port with every other server on this host.
int OpenDiscoverySocket();

// What all threads of a server watch: once something is written to it, it stays readable.
Pipe OpenDonePipe();

// What tells the discovery thread that the network has changed.
Pipe OpenWakePipe();
