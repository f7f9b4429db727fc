#pragma once

// Protected services: only listed publishers may add or remove a service's
// instances, and only an instance's own publisher may change its record;
// everyone may read. Built on ZooKeeper's digest access lists.
//
// What ZooKeeper checks: creating a node needs CREATE on its parent,
// deleting one DELETE on its parent, setting data WRITE on the node, reading
// READ on the node, changing an access list ADMIN on the node. A digest
// identity is "user:" followed by the base64 of the SHA-1 of
// "user:password"; a session gains it with the credentials "user:password"
// (ConnectionOptions::digestAuth).
//
// A protected service node grants READ to everyone, CREATE and DELETE to
// each publisher identity, and everything to the operator's identity. A
// publisher whose connection has credentials creates its instance nodes
// readable by everyone and writable only by itself (ServiceRegistration
// does so by itself). What this cannot prevent: a listed publisher can
// delete a sibling's instance node (DELETE is checked on the parent); a
// server's superDigest user bypasses every list; and the Debian client has
// no TLS, so credentials and records cross the network in clear text.
//
// Functions here are stateless and thread-safe; those that take a
// connection make synchronous requests on the caller's thread.

#include <vector>

#include "ferrow/zookeeper_connection.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// The digest identity of credentials "user:password": "user:" followed by
// base64(sha1("user:password")). Throws std::invalid_argument, naming the
// problem but never the password, when there is no ':' or the user is empty.
String DigestIdentity(const String& credentials);

// An identity as a publisher or operator gives it: credentials
// "user:password" are hashed; "digest:user:hash" is taken as it is (for
// scripts that must not hold the password). Throws as DigestIdentity.
String ParseIdentity(const String& text);

// The access list of a protected service node.
std::vector<AclEntry> ProtectedServiceAcl(const String& operatorIdentity, const std::vector<String>& publishers);

// The access list of an instance node created by a publisher with
// credentials: READ for everyone, everything for the creator's identity.
const ACL_vector& PublisherInstanceAcl();

// Creates /srv2/<service> (and /srv2) with the protected list, or sets the
// list on an existing service node, which needs ADMIN there (an open node
// grants it to everyone). `operatorCredentials` are those `conn` was opened
// with. Throws ZooError with the client's result code (ZNOAUTH when the
// session may not change the list).
void ProtectService(const ZooKeeperConnection& conn, const String& service, const String& operatorCredentials,
                    const std::vector<String>& publishers);

// The access list of /srv2/<service>. The server shows the hash of a
// digest identity only to a session with ADMIN on the node; others read
// "user:x". Throws ZooError (ZNONODE when the service does not exist).
std::vector<AclEntry> ServiceAcl(const ZooKeeperConnection& conn, const String& service);

// The names of the ZOO_PERM_* bits in `perms`, in the order read, write,
// create, delete, admin.
std::vector<String> PermissionNames(int perms);

// "digest:alice:<hash> read,create,delete": the scheme, the id and the
// permission names joined by commas, or "none".
String AclText(const AclEntry& entry);

}  // namespace ferrow
}  // namespace jx
