// kelvo-printer-app: a driverless (IPP Everywhere) printer application for
// the Kelvo ZPL label and stencil printers. PAPPL's main loop gives the
// subcommands (server, add, delete, modify, submit, drivers, devices, status,
// shutdown, ...); app/server.cpp makes the server.
#include <pappl/pappl.h>

#include "app/drivers.h"
#include "app/job.h"
#include "app/server.h"

namespace {
const char kVersion[] = "3.13.13";
}

int main(int argc, char* argv[]) {
  return papplMainloop(argc, argv, kVersion, nullptr, kelvoNumDrivers, kelvoDrivers, nullptr,
                       kelvoServerDriverCallback, nullptr, nullptr, kelvoCreateSystem, nullptr,
                       const_cast<KelvoJobCallbacks*>(&kelvoJobCallbacks));
}
