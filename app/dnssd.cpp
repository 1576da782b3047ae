#include "app/dnssd.h"

#include <avahi-client/client.h>
#include <avahi-common/thread-watch.h>

#include <atomic>
#include <thread>

namespace {

pappl_system_t* sSystem = nullptr;
std::atomic<bool> sUsable{false};
std::atomic<bool> sPageReplaced{false};

bool noDiscoveryPage(pappl_client_t* client, void* /*data*/) {
  if (!papplClientHTMLAuthorize(client)) return true;
  papplClientRespond(client, HTTP_STATUS_OK, nullptr, "text/html", 0, 0);
  papplClientHTMLHeader(client, "Add Printer", 0);
  papplClientHTMLPuts(client,
                      "    <div class=\"content\">\n"
                      "      <div class=\"row\">\n"
                      "        <div class=\"col-12\">\n"
                      "          <h1 class=\"title\">Add Printer</h1>\n"
                      "          <p>Network discovery is unavailable: avahi-daemon was not running when the "
                      "server started, or stopped since. Add printers with <code>kelvo-printer-app add -d NAME "
                      "-m DRIVER -v DEVICE-URI</code>, or restart the server with avahi-daemon running.</p>\n"
                      "        </div>\n"
                      "      </div>\n"
                      "    </div>\n");
  papplClientHTMLFooter(client);
  return true;
}

// Resources may only change outside PAPPL's callbacks, which hold the
// system's lock.
void replaceAddPrinterPage() {
  if (sPageReplaced.exchange(true)) return;
  papplSystemRemoveResource(sSystem, "/addprinter");
  papplSystemAddResourceCallback(sSystem, "/addprinter", "text/html", noDiscoveryPage, nullptr);
}

// From avahi's thread. With AVAHI_CLIENT_NO_FAIL the client waits for a
// daemon that is gone (CONNECTING) instead of failing; PAPPL's does not.
void onState(AvahiClient* /*client*/, AvahiClientState state, void* /*data*/) {
  if (state != AVAHI_CLIENT_FAILURE && state != AVAHI_CLIENT_CONNECTING) return;
  if (!sUsable.exchange(false)) return;
  papplLog(sSystem, PAPPL_LOGLEVEL_WARN,
           "avahi-daemon went away: printers are no longer advertised and the web interface no longer looks for "
           "printers on the network, until the server restarts.");
  std::thread(replaceAddPrinterPage).detach();
}

}  // namespace

bool kelvoDnssdWatch(pappl_system_t* system) {
  sSystem = system;
  AvahiThreadedPoll* poll = avahi_threaded_poll_new();
  int error = 0;
  AvahiClient* client = poll != nullptr ? avahi_client_new(avahi_threaded_poll_get(poll), AVAHI_CLIENT_NO_FAIL,
                                                           onState, nullptr, &error)
                                        : nullptr;
  sUsable = client != nullptr && avahi_client_get_state(client) == AVAHI_CLIENT_S_RUNNING;
  if (!sUsable) {
    papplLog(system, PAPPL_LOGLEVEL_WARN,
             "avahi-daemon is not running: printers are not advertised and the web interface cannot look for "
             "printers on the network.");
    replaceAddPrinterPage();
  }
  // The watch lives as long as the process.
  if (client != nullptr) avahi_threaded_poll_start(poll);
  return sUsable;
}

bool kelvoDnssdUsable() { return sUsable; }

void kelvoDnssdAdvertise(pappl_printer_t* printer) {
  char name[256];
  if (papplPrinterGetDNSSDName(printer, name, sizeof name) != nullptr) papplPrinterSetDNSSDName(printer, name);
}
