#pragma once
// DNS-SD (Bonjour) around PAPPL 1.3's gaps:
// - a printer added while the server runs is not advertised until the server
//   restarts: the application registers it again a moment after it appears
//   (papplPrinterSetDNSSDName with its own name makes PAPPL register it);
// - PAPPL connects to avahi-daemon once, when it starts running, and never
//   again. Its device list (the web interface's Add Printer page) then fails
//   an assertion inside avahi when there was no avahi-daemon at start-up,
//   and when avahi-daemon went away later it keeps a lock that hangs the
//   next DNS-SD call, the server's shutdown included. The application
//   watches avahi-daemon itself and, once PAPPL's connection is lost or was
//   never there, puts a page saying that network discovery is unavailable
//   in place of the Add Printer page.
#include <pappl/pappl.h>

// Starts watching avahi-daemon for `system`, before papplSystemRun; true
// when it runs now.
bool kelvoDnssdWatch(pappl_system_t* system);

// True while PAPPL's DNS-SD connection works: avahi-daemon ran at start-up
// and has not gone away since.
bool kelvoDnssdUsable();

// Registers the printer's services again (from the main loop, not from an
// event callback: PAPPL holds the printer then).
void kelvoDnssdAdvertise(pappl_printer_t* printer);
