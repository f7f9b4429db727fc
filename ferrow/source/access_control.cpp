#include "ferrow/access_control.h"

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

void ProtectService(const ZooKeeperConnection& conn, const String& service, const String& operatorCredentials,
                    const std::vector<String>& publishers) {
    const std::vector<AclEntry> acl = ProtectedServiceAcl(DigestIdentity(operatorCredentials), publishers);
    EnsurePath(conn, "/srv2", false, ZOO_OPEN_ACL_UNSAFE);
    // Created open, then restricted: one way for a new node and an old one.
    const int created = conn.Create(ServicePath(service), String(), ZOO_OPEN_ACL_UNSAFE, 0);
    if (created != ZOK && created != ZNODEEXISTS) throw ZooError(created);
    const int rc = conn.SetAcl(ServicePath(service), acl);
    if (rc != ZOK) throw ZooError(rc);
}

std::vector<AclEntry> ServiceAcl(const ZooKeeperConnection& conn, const String& service) {
    std::vector<AclEntry> acl;
    const int rc = conn.GetAcl(ServicePath(service), acl);
    if (rc != ZOK) throw ZooError(rc);
    return acl;
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
