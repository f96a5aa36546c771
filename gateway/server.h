// The HTTP side of kepwebd: libmicrohttpd serving the API and the web root.
#ifndef KEPWEBD_SERVER_H
#define KEPWEBD_SERVER_H

#include <stddef.h>

#include <string>
#include <vector>

#include "policy.h"

namespace kepweb {

struct Config {
    std::string listen;  // ADDR:PORT, [ADDR]:PORT for IPv6
    std::string usersFile, rulesFile, webRoot, certFile, keyFile, runAs, corsOrigin;
    bool foreground = false;
    int idleSeconds = 300;
    int absoluteSeconds = 12 * 3600;
    int sessionsPerUser = 8;
    size_t bodyLimit = 64 * 1024;
    size_t connectionMemory = 32 * 1024;  // per connection: bounds the request's head
    unsigned maxConnections = 64;
    unsigned perAddress = 16;
    unsigned timeoutSeconds = 10;  // a connection that sends nothing this long is closed
};

// What the server is started with: the parsed files, the bound socket, the open web
// root, the certificate and key in memory (read before privileges are dropped).
struct Loaded {
    Rules rules;
    std::vector<User> users;
    std::string dummyHash;  // verified for unknown users, so they cost the same
    int listenFd = -1;
    int webRootFd = -1;
    std::string cert, key;
};

// Whether the libmicrohttpd at hand serves HTTPS (a device build may lack TLS).
bool tlsAvailable();

class Server;
// Starts serving; nullptr (with the reason on standard error) when it cannot.
Server *startServer(const Config &config, Loaded &&loaded);
void stopServer(Server *server);

// Writes an audit line (syslog, authpriv).
void audit(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kepweb

#endif
