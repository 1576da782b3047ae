#pragma once
// Who may do what on the printer application's server. Printing and reading
// status are open to everyone; changing the server (printer settings,
// adding, deleting, pausing printers, other people's jobs, the log, every
// web form) takes an administrator: a process of this machine running as
// root, as the server's user or as a member of the admin group, or a member
// of the admin group who logs in with their password (PAM, HTTP Basic, only
// over TLS).
//
// PAPPL 1.3 asks the system's authentication callback about every request
// it guards, once for printing (no group) and once more for administration
// (the admin group); PAPPL itself asks clients from afar to switch to TLS
// before that. Its own PAM check does not work on Linux, so the application
// sets its own callback.
#include <pappl/pappl.h>

#include <string>

enum class KelvoAccess { kPrint, kAdmin };

// What a request brings.
struct KelvoAuthRequest {
  KelvoAccess access = KelvoAccess::kAdmin;
  bool localAdmin = false;  // a process of this machine that may administer it
  bool encrypted = false;
  const char* authorization = nullptr;  // the Authorization field, if any
};

// What the server allows; the checks are functions so that tests can stand
// in for PAM and the group database.
struct KelvoAuthPolicy {
  const char* service = nullptr;  // PAM service; none: nobody logs in
  const char* adminGroup = nullptr;
  bool (*passwordOk)(const char* service, const char* user, const char* password) = nullptr;
  bool (*inGroup)(const char* user, const char* group) = nullptr;
};

struct KelvoAuthResult {
  http_status_t status;
  std::string user;  // who logged in, when someone did
};

// The decision: HTTP_STATUS_CONTINUE to go on, UPGRADE_REQUIRED for a login
// in clear text, UNAUTHORIZED without a valid login, FORBIDDEN for users
// who are not administrators or when nobody can log in.
KelvoAuthResult kelvoAuthDecide(const KelvoAuthRequest& request, const KelvoAuthPolicy& policy);

// "Basic <base64 of user:password>" -> user, password.
bool kelvoParseBasic(const char* field, std::string* user, std::string* password);

// The real checks: PAM's password check and account check for `service`,
// and membership (primary or supplementary) of `group`.
bool kelvoPamPasswordOk(const char* service, const char* user, const char* password);
bool kelvoUserInGroup(const char* user, const char* group);

// The settings the callback works with; lives as long as the system.
struct KelvoAuthConfig {
  std::string service;  // empty: nobody logs in from afar
  std::string adminGroup;
};

// papplSystemSetAuthCallback's callback; `data` is a KelvoAuthConfig.
http_status_t kelvoAuthCallback(pappl_client_t* client, const char* group, gid_t groupId, void* data);
