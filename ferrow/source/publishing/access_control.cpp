#include "ferrow/access_control.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include <boost/uuid/detail/sha1.hpp>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"

namespace jx {
namespace ferrow {

namespace {

String Base64(const unsigned char* bytes, size_t size) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    String text;
    for (size_t i = 0; i < size; i += 3) {
        const unsigned value =
            (bytes[i] << 16) | ((i + 1 < size ? bytes[i + 1] : 0) << 8) | (i + 2 < size ? bytes[i + 2] : 0);
        text += kAlphabet[(value >> 18) & 63];
        text += kAlphabet[(value >> 12) & 63];
        text += i + 1 < size ? kAlphabet[(value >> 6) & 63] : '=';
        text += i + 2 < size ? kAlphabet[value & 63] : '=';
    }
    return text;
}

// READ for everyone and everything for the identities of the creating
// session: the "auth" scheme stands for them.
ACL g_publisherEntries[] = {{ZOO_PERM_READ, {const_cast<char*>("world"), const_cast<char*>("anyone")}},
                            {ZOO_PERM_ALL, {const_cast<char*>("auth"), const_cast<char*>("")}}};
const ACL_vector g_publisherAcl = {2, g_publisherEntries};

}  // namespace

String DigestIdentity(const String& credentials) {
    const size_t colon = credentials.find(':');
    if (colon == String::npos) throw std::invalid_argument("credentials must read USER:PASSWORD");
    if (colon == 0) throw std::invalid_argument("credentials name no user");
    if (colon + 1 == credentials.size()) throw std::invalid_argument("credentials give an empty password");
    boost::uuids::detail::sha1 sha1;
    sha1.process_bytes(credentials.data(), credentials.size());
    boost::uuids::detail::sha1::digest_type words;
    sha1.get_digest(words);
    unsigned char digest[20];
    for (int i = 0; i < 5; ++i) {
        for (int b = 0; b < 4; ++b) digest[i * 4 + b] = static_cast<unsigned char>(words[i] >> (24 - 8 * b));
    }
    return credentials.substr(0, colon) + ":" + Base64(digest, sizeof digest);
}

String ParseIdentity(const String& text) {
    static const String kDigest = "digest:";
    if (text.compare(0, kDigest.size(), kDigest) != 0) return DigestIdentity(text);
    const String identity = text.substr(kDigest.size());
    const size_t colon = identity.find(':');
    if (colon == String::npos || colon == 0 || colon + 1 == identity.size()) {
        throw std::invalid_argument("an identity in digest form must read digest:USER:HASH");
    }
    // The hash is the base64 of a SHA-1: 27 characters of the alphabet and
    // one '=' of padding. Anything else names nobody, and would shut the
    // publisher out without a word.
    const String hash = identity.substr(colon + 1);
    const auto base64 = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/'; };
    if (hash.size() != 28 || hash.back() != '=' || !std::all_of(hash.begin(), hash.end() - 1, base64)) {
        throw std::invalid_argument(
            "the HASH of digest:USER:HASH must be 28 characters of base64 (a SHA-1), as ferrow protect prints it");
    }
    return identity;
}

std::vector<AclEntry> ProtectedServiceAcl(const String& operatorIdentity, const std::vector<String>& publishers) {
    std::vector<AclEntry> acl{{"world", "anyone", ZOO_PERM_READ}, {"digest", operatorIdentity, ZOO_PERM_ALL}};
    for (const String& publisher : publishers) {
        // The operator keeps everything, also when listed as a publisher.
        if (publisher != operatorIdentity) acl.push_back({"digest", publisher, ZOO_PERM_CREATE | ZOO_PERM_DELETE});
    }
    return acl;
}

const ACL_vector& PublisherInstanceAcl() { return g_publisherAcl; }

AccessDenied::AccessDenied(String path, String permission)
    : ZooError(ZNOAUTH), m_path(std::move(path)), m_permission(std::move(permission)) {}

OpenInstances::OpenInstances(std::vector<std::pair<String, String>> instances)
    : std::runtime_error("instances that are not safe under the protected service"),
      m_instances(std::move(instances)) {
    for (const auto& instance : m_instances) m_ids.push_back(instance.first);
}

namespace {

// Throws for `rc`: AccessDenied for ZNOAUTH, naming `path` and `permission`.
void Check(int rc, const String& path, const char* permission) {
    if (rc == ZNOAUTH) throw AccessDenied(path, permission);
    if (rc != ZOK) throw ZooError(rc);
}


// Deletes the node at `path` and everything under it, deepest first, as
// far as the lists allow: false when one refuses.
bool DeleteTree(const ZooKeeperConnection& conn, const String& path, int depth = 0) {
    std::vector<String> children;
    if (depth < 64 && conn.GetChildren(path, children) == ZOK) {
        for (const String& child : children) {
            if (!DeleteTree(conn, path + "/" + child, depth + 1)) return false;
        }
    }
    const int rc = conn.Delete(path, -1);
    return rc == ZOK || rc == ZNONODE;
}

// Gives /srv2 `acl` and its marker (kRootMarker), a child only the
// operator may delete, so that the root is never empty and so never
// deleted (ZooKeeper checks a deletion on /, which anyone may change). Until
// the marker is in, a stranger may delete the empty root and create it
// anew, open, at any moment: the two are checked together at the end and
// set again until they hold. With `onlyWhenMissing`, a root that exists
// (made by someone else meanwhile) is left as it is.
void SecureRoot(const ZooKeeperConnection& conn, const String& operatorIdentity, const std::vector<AclEntry>& acl,
                bool onlyWhenMissing) {
    const String marker = "/srv2/" + String(kRootMarker);
    const std::vector<AclEntry> markerAcl{{"world", "anyone", ZOO_PERM_READ}, {"digest", operatorIdentity, ZOO_PERM_ALL}};
    for (int attempt = 0; attempt < 16; ++attempt) {
        int rc = onlyWhenMissing && attempt == 0 ? ZNONODE : conn.SetAcl("/srv2", acl);
        if (rc == ZNONODE) {
            rc = conn.Create("/srv2", String(), acl, 0);
            if (rc == ZNODEEXISTS && onlyWhenMissing) return;
            if (rc == ZNODEEXISTS) continue;
            Check(rc, "/", "create");
        } else {
            Check(rc, "/srv2", "admin");
        }
        rc = conn.Create(marker, String(), markerAcl, 0);
        if (rc == ZNONODE) continue;  // the root went meanwhile
        if (rc != ZNODEEXISTS) Check(rc, "/srv2", "create");
        std::vector<AclEntry> held;
        if (conn.GetAcl(marker, held) == ZOK && held != markerAcl) {
            // Squatted while the root was open: replaced.
            DeleteTree(conn, marker);
            continue;
        }
        if (conn.GetAcl("/srv2", held) == ZOK && held == acl && conn.Exists(marker, nullptr) == ZOK) return;
    }
    throw std::runtime_error("/srv2 kept being deleted and created anew by another client; run protect-root again");
}

// Why the instance at `path` is not safe under a service protected for
// `allowed` (the operator's and the publishers' identities), or empty when
// it is: ferrow publishes only ephemeral nodes without children, which
// grant more than READ to those identities alone.
String Unsafe(const ZooKeeperConnection& conn, const String& path, const std::vector<String>& allowed) {
    std::vector<AclEntry> acl;
    Stat stat{};
    const int rc = conn.GetAcl(path, acl, &stat);
    if (rc == ZNONODE) return String();
    if (rc == ZNOAUTH) return "its access list cannot be read";
    Check(rc, path, "read");
    if (stat.ephemeralOwner == 0) return "it is persistent";
    if (stat.numChildren > 0) return "it has children";
    // The server shows a digest identity's hash only to a session with
    // ADMIN on the node, which the operator has not on a publisher's own:
    // there it reads "user:x", and a listed user is taken by its name.
    const auto listed = [&allowed](const AclEntry& entry) {
        if (entry.scheme != "digest") return false;
        const bool hidden = entry.id.size() > 2 && entry.id.compare(entry.id.size() - 2, 2, ":x") == 0;
        return std::any_of(allowed.begin(), allowed.end(), [&](const String& identity) {
            return identity == entry.id ||
                   (hidden && identity.compare(0, entry.id.size() - 1, entry.id, 0, entry.id.size() - 1) == 0);
        });
    };
    bool held = false;
    for (const AclEntry& entry : acl) {
        if ((entry.perms & ~ZOO_PERM_READ) == 0) continue;
        if (!listed(entry)) return "it grants " + AclText(entry);
        held = held || (entry.perms & ZOO_PERM_WRITE) != 0;
    }
    // A node that no listed identity may write is not one of theirs.
    if (!held) return "no listed publisher may write it";
    return String();
}


// Makes the unsafe instance at `path` safe, as the operator with
// `operatorIdentity`: an ephemeral one is locked (READ for everyone,
// everything for the operator) and goes with its session; any other is
// deleted, its children first. False when the node's own list forbids it.
bool MakeSafe(const ZooKeeperConnection& conn, const String& path, const String& operatorIdentity) {
    Stat stat{};
    const int exists = conn.Exists(path, &stat);
    if (exists == ZNONODE) return true;
    if (exists == ZOK && stat.ephemeralOwner != 0 && stat.numChildren == 0 &&
        conn.SetAcl(path, {{"world", "anyone", ZOO_PERM_READ}, {"digest", operatorIdentity, ZOO_PERM_ALL}}) == ZOK) {
        return true;
    }
    return DeleteTree(conn, path);
}

}  // namespace

void ProtectService(const ZooKeeperConnection& conn, const String& service, const String& operatorCredentials,
                    const std::vector<String>& publishers, OpenInstancePolicy open) {
    const String operatorIdentity = DigestIdentity(operatorCredentials);
    const String path = ServicePath(service);
    // The list first: from then on only the operator and the publishers may
    // add instances, so the instances judged below are all there can be.
    const std::vector<AclEntry> acl = ProtectedServiceAcl(operatorIdentity, publishers);
    int rc = conn.SetAcl(path, acl);
    if (rc == ZNONODE) {
        // Missing: made as the operator's, where anyone may add services,
        // as under an open root, but only the operator may delete them or
        // change its list.
        if (conn.Exists("/srv2", nullptr) == ZNONODE) {
            SecureRoot(conn, operatorIdentity,
                       {{"world", "anyone", ZOO_PERM_READ | ZOO_PERM_CREATE}, {"digest", operatorIdentity, ZOO_PERM_ALL}},
                       true);
        }
        rc = conn.Create(path, String(), acl, 0);
        if (rc == ZNODEEXISTS) {
            rc = conn.SetAcl(path, acl);
        } else {
            Check(rc, "/srv2", "create");
        }
    }
    Check(rc, path, "admin");
    std::vector<String> allowed{operatorIdentity};
    allowed.insert(allowed.end(), publishers.begin(), publishers.end());
    std::vector<String> children;
    Check(conn.GetChildren(path, children), path, "read");
    std::vector<std::pair<String, String>> unsafe;
    for (const String& child : children) {
        String reason = Unsafe(conn, path + "/" + child, allowed);
        if (reason.empty()) continue;
        if (open == OpenInstancePolicy::kLock && MakeSafe(conn, path + "/" + child, operatorIdentity)) continue;
        if (open == OpenInstancePolicy::kLock) reason += ", and its own list keeps the operator from removing it";
        unsafe.emplace_back(child, std::move(reason));
    }
    if (!unsafe.empty()) throw OpenInstances(std::move(unsafe));
}

void ProtectRoot(const ZooKeeperConnection& conn, const String& operatorCredentials,
                 const std::vector<String>& creators) {
    const String operatorIdentity = DigestIdentity(operatorCredentials);
    std::vector<AclEntry> acl{{"world", "anyone", ZOO_PERM_READ}, {"digest", operatorIdentity, ZOO_PERM_ALL}};
    for (const String& creator : creators) {
        if (creator != operatorIdentity) acl.push_back({"digest", creator, ZOO_PERM_CREATE});
    }
    SecureRoot(conn, operatorIdentity, acl, false);
    // Services made before the root was protected may be out of the
    // operator's reach: named, as protecting them would fail.
    std::vector<String> services;
    Check(conn.GetChildren("/srv2", services), "/srv2", "read");
    std::vector<String> unmanaged;
    for (const String& service : services) {
        if (service == kRootMarker) continue;
        std::vector<AclEntry> serviceAcl;
        const int rc = conn.GetAcl(ServicePath(service), serviceAcl);
        if (rc == ZNONODE) continue;
        const bool admin = rc == ZOK && std::any_of(serviceAcl.begin(), serviceAcl.end(), [&](const AclEntry& entry) {
            const bool anyone = entry.scheme == "world" && entry.id == "anyone";
            const bool self = entry.scheme == "digest" && entry.id == operatorIdentity;
            return (anyone || self) && (entry.perms & ZOO_PERM_ADMIN) != 0;
        });
        if (!admin) unmanaged.push_back(service);
    }
    std::sort(unmanaged.begin(), unmanaged.end());
    if (!unmanaged.empty()) throw UnmanagedServices(std::move(unmanaged));
}

UnmanagedServices::UnmanagedServices(std::vector<String> services)
    : std::runtime_error("services the operator cannot administer"), m_services(std::move(services)) {}

void EnsureServiceNode(const Connection& conn, const String& service) {
    const String path = ServicePath(service);
    const auto* zookeeper = dynamic_cast<const ZooKeeperConnection*>(&conn);
    if (zookeeper == nullptr || !conn.HasCredentials()) {
        EnsurePath(conn, path, false, ZOO_OPEN_ACL_UNSAFE);
        return;
    }
    const int exists = conn.Exists(path, nullptr);
    if (exists == ZOK) return;
    if (exists != ZNONODE) throw ZooError(exists);
    // A missing root is made as anyone would make it: protect-root is the
    // operator's to run.
    EnsurePath(conn, "/srv2", false, ZOO_OPEN_ACL_UNSAFE);
    // Open to every publisher, as a service nobody protected, but deleted,
    // re-listed or protected only by its creator. (The root's operator
    // cannot be added: the server shows its identity's hash to those who
    // administer the root alone.)
    const int rc = zookeeper->Create(
        path, String(), {{"world", "anyone", ZOO_PERM_READ | ZOO_PERM_CREATE | ZOO_PERM_DELETE}, {"auth", "", ZOO_PERM_ALL}}, 0);
    if (rc != ZOK && rc != ZNODEEXISTS) Check(rc, "/srv2", "create");
}

std::vector<AclEntry> NodeAcl(const ZooKeeperConnection& conn, const String& path) {
    std::vector<AclEntry> acl;
    const int rc = conn.GetAcl(path, acl);
    if (rc != ZOK) throw ZooError(rc);
    return acl;
}

std::vector<AclEntry> ServiceAcl(const ZooKeeperConnection& conn, const String& service) {
    return NodeAcl(conn, ServicePath(service));
}

std::vector<String> PermissionNames(int perms) {
    static const std::pair<int, const char*> kNames[] = {{ZOO_PERM_READ, "read"},
                                                         {ZOO_PERM_WRITE, "write"},
                                                         {ZOO_PERM_CREATE, "create"},
                                                         {ZOO_PERM_DELETE, "delete"},
                                                         {ZOO_PERM_ADMIN, "admin"}};
    std::vector<String> names;
    for (const auto& [bit, name] : kNames) {
        if ((perms & bit) != 0) names.push_back(name);
    }
    return names;
}

String AclText(const AclEntry& entry) {
    String perms;
    for (const String& name : PermissionNames(entry.perms)) perms += (perms.empty() ? "" : ",") + name;
    return entry.scheme + ":" + entry.id + " " + (perms.empty() ? "none" : perms);
}

}  // namespace ferrow
}  // namespace jx
