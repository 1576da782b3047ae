#pragma once
// What the application adds to PAPPL's job handling so that no job is lost
// and no job holds a printer: its own picture filters and network device
// (app/job.h, app/device.h), jobs that a stop or crash interrupted printed
// again from their start, queued jobs started without waiting for a new one,
// and a server that stops within seconds whatever its jobs and printers do.
#include <pappl/pappl.h>

// For the server about to run, in place of papplSystemLoadState. The server
// option stall-timeout=SECONDS (30 by default) is how long a printer may
// take no data before the job it prints fails.
//
// A job the state file records as printing was interrupted (the server was
// killed, or stopped while the job printed): it becomes pending again and
// is printed from its start, saying so in its message and log; one whose
// document is gone is aborted with a message instead.
void kelvoSetUpJobs(pappl_system_t* system, int numOptions, cups_option_t* options, const char* stateFile);
