#pragma once
// The `server` subcommand: its options and the PAPPL system they make.
#include <pappl/pappl.h>

#include <string>

struct KelvoServerOptions {
  std::string listen;       // listen-hostname, comma-separated; empty: the default below
  int port = 8000;          // server-port
  std::string authService;  // auth-service: PAM service; empty: no logins
  std::string adminGroup;   // admin-group
  std::string stateFile;    // state-file
  std::string spoolDir;     // spool-directory
  std::string tlsDir;       // tls-directory
  std::string logFile;      // log-file ("-": standard error)
  pappl_loglevel_t logLevel = PAPPL_LOGLEVEL_WARN;  // log-level
};

// Reads the options, with their defaults: state, spool and TLS files under
// $XDG_STATE_HOME/kelvo-printer-app (else ~/.local/state/...), listening on
// the loopback only unless an auth-service is given or listen-hostname
// says otherwise. False, with the reason, for values that make no sense.
bool kelvoParseServerOptions(int count, cups_option_t* options, KelvoServerOptions* out, std::string* error);

// True when every address of `listen` (as papplSystemAddListeners takes
// them) is a loopback one.
bool kelvoListensOnLoopbackOnly(const std::string& listen);

// papplMainloop's system callback.
pappl_system_t* kelvoCreateSystem(int count, cups_option_t* options, void* data);

// The drivers' callback (app/drivers.cpp) with what the server adds.
bool kelvoServerDriverCallback(pappl_system_t* system, const char* driverName, const char* deviceUri,
                               const char* deviceId, pappl_pr_driver_data_t* data, ipp_t** attrs, void* cbdata);
