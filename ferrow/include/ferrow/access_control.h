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
// The root /srv2 is open (world:anyone, everything) until the operator
// protects it once (ProtectRoot): READ for everyone, CREATE for the
// identities that may add services, everything for the operator. Until
// then anyone may delete a service node that has no instances (a protected
// one too), create a service's node before its operator protects it, or
// take the root's list for themselves. Services that are not protected
// work under a protected root as under an open one, but only the listed
// creators and the operator may add new ones.
//
// Functions here are stateless and thread-safe; those that take a
// connection make synchronous requests on the caller's thread.

#include <stdexcept>
#include <utility>
#include <vector>

#include "ferrow/error.h"
#include "ferrow/zookeeper_connection.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// The digest identity of credentials "user:password": "user:" followed by
// base64(sha1("user:password")). Throws std::invalid_argument, naming the
// problem but never the password, when there is no ':', or the user or the
// password is empty.
String DigestIdentity(const String& credentials);

// An identity as a publisher or operator gives it: credentials
// "user:password" are hashed; "digest:user:hash" is taken as it is (for
// scripts that must not hold the password). Throws as DigestIdentity, and
// for a hash that is not 28 characters of base64 (the form of a SHA-1).
String ParseIdentity(const String& text);

// The access list of a protected service node.
std::vector<AclEntry> ProtectedServiceAcl(const String& operatorIdentity, const std::vector<String>& publishers);

// The access list of an instance node created by a publisher with
// credentials: READ for everyone, everything for the creator's identity.
const ACL_vector& PublisherInstanceAcl();

// A request that an access list refused: the node and the permission it
// needed ("create", "admin", ...). Code() is ZNOAUTH.
class AccessDenied : public ZooError {
public:
    AccessDenied(String path, String permission);
    const String& Path() const { return m_path; }
    const String& Permission() const { return m_permission; }

private:
    String m_path;
    String m_permission;
};

// Instances of a protected service that are not as ferrow publishes them:
// persistent, with children, granting more than READ to anyone but the
// operator and the listed publishers (anonymous publishers, strangers,
// ip: or world: grants of any permission), or whose list the operator
// cannot read. Readers follow them all the same: they are named, with why.
class OpenInstances : public std::runtime_error {
public:
    explicit OpenInstances(std::vector<std::pair<String, String>> instances);
    // The ids, and each with its reason.
    const std::vector<String>& Ids() const { return m_ids; }
    const std::vector<std::pair<String, String>>& Instances() const { return m_instances; }

private:
    std::vector<std::pair<String, String>> m_instances;
    std::vector<String> m_ids;
};

// What ProtectService does with the instances that are not safe.
enum class OpenInstancePolicy {
    kRefuse,  // leaves them and throws OpenInstances naming them
    kLock,    // locks an ephemeral one (READ for everyone, everything for
              // the operator: it goes with its session, and its publisher
              // registers again with credentials) and deletes any other,
              // children first; throws OpenInstances naming those whose own
              // list keeps the operator out (only the super user can)
};

// Protects /srv2/<service>: sets the protected list on the existing node
// (needs ADMIN there only), or creates it with that list from the start
// (needs CREATE on /srv2; creates a missing /srv2 where anyone may add
// services but only the operator may delete them or change its list, with
// its marker, kRootMarker). Then,
// as nothing unsafe can be added any more, judges every instance and deals
// with the unsafe ones by `open`: the service is protected either way, and
// OpenInstances says what is left. `operatorCredentials` are those `conn`
// was opened with. Throws AccessDenied naming the node and permission
// refused, OpenInstances, or ZooError with the client's result code.
void ProtectService(const ZooKeeperConnection& conn, const String& service, const String& operatorCredentials,
                    const std::vector<String>& publishers, OpenInstancePolicy open = OpenInstancePolicy::kRefuse);

// Protects the root /srv2, creating it when missing: READ for everyone,
// CREATE for each of `creators` (identities as ParseIdentity returns them),
// everything for the operator; and adds its marker (kRootMarker), so that
// it cannot be emptied and deleted. Needs ADMIN on an existing /srv2.
// Throws as ProtectService, and UnmanagedServices, once the root is
// protected, naming the services the operator cannot administer.
void ProtectRoot(const ZooKeeperConnection& conn, const String& operatorCredentials,
                 const std::vector<String>& creators);

// The child of a protected root that keeps it from being emptied (and so
// deleted: ZooKeeper checks a deletion on the parent, and / lets anyone
// delete). Only the operator may delete it; it names no service, and no
// service may be named so.
inline constexpr const char* kRootMarker = ".root";

// Services under a root just protected whose node the operator cannot
// administer (made by another identity before the root was protected):
// only their creator, or the server's super user, can protect or remove
// them.
class UnmanagedServices : public std::runtime_error {
public:
    explicit UnmanagedServices(std::vector<String> services);
    const std::vector<String>& Services() const { return m_services; }

private:
    std::vector<String> m_services;
};

// Creates the node of `service` when missing, before a watcher or a
// registration uses it. A connection without credentials (or another kind
// of Connection) creates it open, with a missing /srv2, as ever; one with
// credentials creates it open to every publisher (READ, CREATE and DELETE
// for everyone) but deleted, re-listed or protected only by that identity,
// so that nobody else can seize it; the root's operator is not among them
// (only those who administer the root may read its identity), so it is the
// creator's to protect, and ProtectRoot names it. Throws AccessDenied
// ("create" on /srv2) or ZooError.
void EnsureServiceNode(const Connection& conn, const String& service);

// The access list of the node at `path` (/srv2, a service, an instance).
// Throws ZooError (ZNONODE when it does not exist).
std::vector<AclEntry> NodeAcl(const ZooKeeperConnection& conn, const String& path);

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
