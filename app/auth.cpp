#include "app/auth.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <vector>

#include "app/request_guard.h"

namespace {

// Runs `lookup` (a getpwnam_r-style call) with a buffer that grows until
// the entry fits.
template <typename Lookup>
bool withBuffer(Lookup lookup) {
  for (size_t size = 4096; size <= (1u << 20); size *= 4) {
    std::vector<char> buffer(size);
    const int error = lookup(buffer.data(), buffer.size());
    if (error != ERANGE) return error == 0;
  }
  return false;
}

bool userName(uid_t uid, std::string* name) {
  return withBuffer([&](char* buffer, size_t size) {
    struct passwd entry, *found = nullptr;
    const int error = getpwuid_r(uid, &entry, buffer, size, &found);
    if (error == 0 && found == nullptr) return ENOENT;
    if (error == 0) *name = found->pw_name;
    return error;
  });
}

struct PamAnswer {
  const char* password;
};

// PAM asks for the password (with or without echo); messages are ignored.
int pamConversation(int count, const struct pam_message** messages, struct pam_response** responses, void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  auto* answers = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const int style = messages[i]->msg_style;
    if (style == PAM_PROMPT_ECHO_OFF || style == PAM_PROMPT_ECHO_ON) {
      answers[i].resp = strdup(static_cast<PamAnswer*>(data)->password);
    } else if (style != PAM_ERROR_MSG && style != PAM_TEXT_INFO) {
      for (int j = 0; j < i; ++j) std::free(answers[j].resp);
      std::free(answers);
      return PAM_CONV_ERR;
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

// /proc/net/tcp's way of writing an address: the address's 32-bit words as
// they lie in memory, in hex, then the port.
std::string procAddress(const sockaddr_storage& address) {
  char text[64];
  if (address.ss_family == AF_INET) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(address);
    std::snprintf(text, sizeof text, "%08X:%04X", static_cast<unsigned>(in.sin_addr.s_addr), ntohs(in.sin_port));
  } else {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    uint32_t words[4];
    std::memcpy(words, &in6.sin6_addr, sizeof words);
    std::snprintf(text, sizeof text, "%08X%08X%08X%08X:%04X", words[0], words[1], words[2], words[3],
                  ntohs(in6.sin6_port));
  }
  return text;
}

bool isLoopback(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET)
    return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
  if (address.ss_family != AF_INET6) return false;
  const in6_addr& in6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&in6) || (IN6_IS_ADDR_V4MAPPED(&in6) && in6.s6_addr[12] == 127);
}

// The user of the process at the other end of one of this server's
// connections, when that process runs on this machine: the unix socket
// tells it, and for a TCP connection over the loopback the kernel's list
// of sockets does (the client's socket: local address = the peer, remote
// address = ours).
bool peerUid(int fd, uid_t* uid) {
  sockaddr_storage peer{}, self{};
  socklen_t peerSize = sizeof peer, selfSize = sizeof self;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&self), &selfSize) != 0)
    return false;
  if (peer.ss_family == AF_UNIX) {
    struct ucred credentials {};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
    *uid = credentials.uid;
    return true;
  }
  if (!isLoopback(peer)) return false;
  const std::string local = procAddress(peer), remote = procAddress(self);
  std::ifstream table(peer.ss_family == AF_INET ? "/proc/net/tcp" : "/proc/net/tcp6");
  std::string line;
  std::getline(table, line);  // the column names
  while (std::getline(table, line)) {
    char slot[16], localField[64], remoteField[64], state[8], queues[40], timer[40], retransmits[16];
    unsigned long owner = 0;
    if (std::sscanf(line.c_str(), "%15s %63s %63s %7s %39s %39s %15s %lu", slot, localField, remoteField, state, queues,
                    timer, retransmits, &owner) == 8 &&
        local == localField && remote == remoteField) {
      *uid = static_cast<uid_t>(owner);
      return true;
    }
  }
  return false;
}

// Root, the server's own user and the admin group administer from this
// machine; `user` is set to the name of whoever it is.
bool isLocalAdmin(pappl_client_t* client, const char* adminGroup, std::string* user) {
  uid_t uid = 0;
  if (!peerUid(httpGetFd(papplClientGetHTTP(client)), &uid) || !userName(uid, user)) return false;
  return uid == 0 || uid == geteuid() || (*adminGroup != '\0' && kelvoUserInGroup(user->c_str(), adminGroup));
}

const char* requestingUser(pappl_client_t* client) {
  ipp_t* request = papplClientGetRequest(client);
  ipp_attribute_t* name =
      request != nullptr ? ippFindAttribute(request, "requesting-user-name", IPP_TAG_NAME) : nullptr;
  return name != nullptr ? ippGetString(name, 0, nullptr) : nullptr;
}

}  // namespace

KelvoAuthResult kelvoAuthDecide(const KelvoAuthRequest& request, const KelvoAuthPolicy& policy) {
  if (request.access == KelvoAccess::kPrint || request.localAdmin) return {HTTP_STATUS_CONTINUE, ""};
  if (policy.service == nullptr || *policy.service == '\0') return {HTTP_STATUS_FORBIDDEN, ""};
  if (!request.encrypted) return {HTTP_STATUS_UPGRADE_REQUIRED, ""};
  std::string user, password;
  if (request.authorization == nullptr || !kelvoParseBasic(request.authorization, &user, &password) ||
      !policy.passwordOk(policy.service, user.c_str(), password.c_str()))
    return {HTTP_STATUS_UNAUTHORIZED, ""};
  if (policy.adminGroup == nullptr || *policy.adminGroup == '\0' || !policy.inGroup(user.c_str(), policy.adminGroup))
    return {HTTP_STATUS_FORBIDDEN, user};
  return {HTTP_STATUS_CONTINUE, user};
}

bool kelvoParseBasic(const char* field, std::string* user, std::string* password) {
  if (field == nullptr || strncasecmp(field, "Basic ", 6) != 0) return false;
  const char* encoded = field + 6;
  while (*encoded == ' ') ++encoded;
  // A user name and password of a few hundred bytes at most.
  if (std::strlen(encoded) > 1024) return false;
  char decoded[800];
  int size = sizeof decoded - 1;
  if (httpDecode64_2(decoded, &size, encoded) == nullptr || size <= 0) return false;
  decoded[size] = '\0';
  const char* colon = std::strchr(decoded, ':');
  if (colon == nullptr || colon == decoded || std::strlen(decoded) != static_cast<size_t>(size)) return false;
  user->assign(decoded, static_cast<size_t>(colon - decoded));
  password->assign(colon + 1);
  return true;
}

bool kelvoPamPasswordOk(const char* service, const char* user, const char* password) {
  // Some PAM modules keep state between calls; one login at a time.
  static std::mutex pamLock;
  std::lock_guard<std::mutex> hold(pamLock);
  PamAnswer answer{password};
  const struct pam_conv conversation = {pamConversation, &answer};
  pam_handle_t* handle = nullptr;
  if (pam_start(service, user, &conversation, &handle) != PAM_SUCCESS) return false;
  int status = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) status = pam_acct_mgmt(handle, PAM_SILENT);
  pam_end(handle, status);
  return status == PAM_SUCCESS;
}

bool kelvoUserInGroup(const char* user, const char* group) {
  gid_t groupId = 0, primary = 0;
  const bool found = withBuffer([&](char* buffer, size_t size) {
    struct group entry, *result = nullptr;
    const int error = getgrnam_r(group, &entry, buffer, size, &result);
    if (error == 0 && result == nullptr) return ENOENT;
    if (error == 0) groupId = result->gr_gid;
    return error;
  });
  const bool known = withBuffer([&](char* buffer, size_t size) {
    struct passwd entry, *result = nullptr;
    const int error = getpwnam_r(user, &entry, buffer, size, &result);
    if (error == 0 && result == nullptr) return ENOENT;
    if (error == 0) primary = result->pw_gid;
    return error;
  });
  if (!found || !known) return false;
  if (primary == groupId) return true;
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  while (getgrouplist(user, primary, groups.data(), &count) < 0) {
    if (count <= static_cast<int>(groups.size()) || count > 65536) return false;
    groups.resize(static_cast<size_t>(count));
  }
  for (int i = 0; i < count; ++i)
    if (groups[static_cast<size_t>(i)] == groupId) return true;
  return false;
}

http_status_t kelvoAuthCallback(pappl_client_t* client, const char* group, gid_t /*groupId*/, void* data) {
  const auto* config = static_cast<const KelvoAuthConfig*>(data);
  // Requests too large or with values the printer does not offer go no
  // further, whoever sends them.
  const http_status_t guard = kelvoGuardRequest(client);
  if (guard != HTTP_STATUS_CONTINUE) return guard;

  KelvoAuthRequest request;
  // PAPPL names the admin group when it asks about administration.
  request.access = group != nullptr ? KelvoAccess::kAdmin : KelvoAccess::kPrint;
  request.encrypted = papplClientIsEncrypted(client);
  request.authorization = httpGetField(papplClientGetHTTP(client), HTTP_FIELD_AUTHORIZATION);
  std::string localUser;
  if (request.access == KelvoAccess::kAdmin)
    request.localAdmin = isLocalAdmin(client, config->adminGroup.c_str(), &localUser);
  const KelvoAuthPolicy policy{config->service.c_str(), config->adminGroup.c_str(), kelvoPamPasswordOk,
                               kelvoUserInGroup};
  const KelvoAuthResult result = kelvoAuthDecide(request, policy);

  papplLogClient(client, PAPPL_LOGLEVEL_DEBUG, "Authorization for %s: %s, user \"%s\", local administrator %s: %d",
                 ippOpString(papplClientGetOperation(client)), group != nullptr ? group : "printing",
                 papplClientGetUsername(client) != nullptr ? papplClientGetUsername(client) : "",
                 request.localAdmin ? "yes" : "no", result.status);
  if (request.access == KelvoAccess::kPrint) {
    // Jobs belong to the name they are sent with, as IPP has it, so that
    // their owner may cancel them.
    const char* owner = requestingUser(client);
    if (papplClientGetUsername(client) == nullptr || *papplClientGetUsername(client) == '\0')
      papplClientSetUsername(client, owner != nullptr && *owner != '\0' ? owner : "anonymous");
  } else if (result.status == HTTP_STATUS_CONTINUE) {
    papplClientSetUsername(client, request.localAdmin ? localUser.c_str() : result.user.c_str());
  } else {
    papplLogClient(client, PAPPL_LOGLEVEL_INFO, "Administration refused (%d%s%s).", result.status,
                   result.user.empty() ? "" : ", user ", result.user.c_str());
  }
  return result.status;
}
