#include "secrets.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <utility>

#include "ferrow/access_control.h"

namespace jx {
namespace ferrow {
namespace cli {
namespace {

String Trimmed(const String& line) {
    const char* const kSpace = " \t\r\n\v\f";
    const size_t first = line.find_first_not_of(kSpace);
    if (first == String::npos) return String();
    return line.substr(first, line.find_last_not_of(kSpace) - first + 1);
}

bool Skipped(const String& trimmed) { return trimmed.empty() || trimmed[0] == '#'; }

std::ifstream Open(const String& path, const String& what) {
    std::ifstream file(path);
    if (!file) throw UsageError(what + " " + path + ": " + std::strerror(errno));
    return file;
}

// The longest line a credentials or publishers file may hold: far more
// than any identity, little enough to refuse a file that is none.
constexpr std::size_t kLongestLine = 4096;

// The lines of `path`, numbered from 1, each refused with its number when
// it cannot be meant: a UTF-8 byte-order mark (which would start the first
// user's name, shutting that user out without a word), a NUL byte, or more
// than kLongestLine bytes. `what` names the file in errors.
std::vector<std::pair<int, String>> ReadLines(const String& path, const String& what) {
    std::ifstream file = Open(path, what);
    std::vector<std::pair<int, String>> lines;
    int number = 0;
    String line;
    while (file) {
        line.clear();
        // Read a character at a time up to the limit, so that a huge line
        // is refused without holding it.
        for (char c; file.get(c) && c != '\n';) {
            if (line.size() == kLongestLine) {
                throw UsageError(path + ":" + std::to_string(number + 1) + ": longer than " +
                                 std::to_string(kLongestLine) + " bytes");
            }
            line += c;
        }
        if (!file && line.empty()) break;
        ++number;
        if (line.compare(0, 3, "\xEF\xBB\xBF") == 0) {
            throw UsageError(path + ":" + std::to_string(number) +
                             ": starts with a UTF-8 byte-order mark; save the file without one");
        }
        if (line.find('\0') != String::npos) throw UsageError(path + ":" + std::to_string(number) + ": holds a NUL byte");
        lines.emplace_back(number, line);
    }
    return lines;
}

// Replaces the password of argv[index], from its first colon, with one
// 'x'. Where the arguments lie end to end, as the kernel lays them out, the
// rest of the command line moves up over the gap and its end is cleared,
// so that the process list shows neither the password nor its length;
// elsewhere each of its characters becomes an 'x'.
void Blank(int argc, char** argv, int index, char* text) {
    char* colon = std::strchr(text, ':');
    if (colon == nullptr || colon[1] == '\0') return;
    char* const password = colon + 1;
    const std::size_t length = std::strlen(password);
    bool adjacent = true;
    for (int i = 0; i + 1 < argc; ++i) adjacent = adjacent && argv[i + 1] == argv[i] + std::strlen(argv[i]) + 1;
    if (!adjacent) {
        std::memset(password, 'x', length);
        return;
    }
    char* const end = argv[argc - 1] + std::strlen(argv[argc - 1]) + 1;
    password[0] = 'x';
    const std::size_t gap = length - 1;
    std::memmove(password + 1, password + length, static_cast<std::size_t>(end - (password + length)));
    std::memset(end - gap, '\0', gap);
    for (int i = index + 1; i < argc; ++i) argv[i] -= gap;
}

}  // namespace

void CheckIdentities(const std::vector<String>& identities, const String& what) {
    for (const String& identity : identities) {
        try {
            (void)ParseIdentity(identity);
        } catch (const std::invalid_argument& e) {
            throw UsageError(what + ": " + e.what());
        }
    }
}

void RequireOperator(const String& credentials, const String& command) {
    if (credentials.empty()) {
        throw UsageError(command + " needs the operator's credentials: give --auth-file or FERROW_AUTH");
    }
}

std::vector<String> ReadPublishersFile(const String& path) {
    std::vector<String> publishers;
    for (const auto& [number, line] : ReadLines(path, "publishers file")) {
        const String publisher = Trimmed(line);
        if (Skipped(publisher)) continue;
        try {
            (void)ParseIdentity(publisher);
        } catch (const std::invalid_argument& e) {
            throw UsageError(path + ":" + std::to_string(number) + ": " + e.what());
        }
        publishers.push_back(publisher);
    }
    return publishers;
}

String ReadAuthFile(const String& path, const String& what) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) throw UsageError(what + " " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw UsageError(what + " " + path + " is not a file");
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw UsageError(what + " " + path + " may be read or written by others than its owner (chmod 600 " + path +
                         ")");
    }
    for (const auto& [number, line] : ReadLines(path, what)) {
        const String credentials = Trimmed(line);
        if (Skipped(credentials)) continue;
        try {
            (void)DigestIdentity(credentials);
        } catch (const std::invalid_argument& e) {
            throw UsageError(path + ":" + std::to_string(number) + ": " + e.what());
        }
        return credentials;
    }
    throw UsageError(what + " " + path + " holds no credentials");
}

std::vector<String> HidePasswordArguments(int argc, char** argv) {
    static const char* const kOptions[] = {"--auth", "--publisher", "--creator"};
    std::vector<String> hidden;
    const auto hide = [&](const char* option, int index, char* value) {
        // An identity in digest form holds no password.
        if (std::strncmp(value, "digest:", 7) == 0 || std::strchr(value, ':') == nullptr) return;
        Blank(argc, argv, index, value);
        if (std::find(hidden.begin(), hidden.end(), option) == hidden.end()) hidden.emplace_back(option);
    };
    for (int i = 1; i < argc; ++i) {
        for (const char* option : kOptions) {
            const std::size_t length = std::strlen(option);
            if (std::strcmp(argv[i], option) == 0 && i + 1 < argc) {
                // --auth takes one value; --publisher and --creator every
                // one up to the next option.
                const bool many = std::strcmp(option, "--auth") != 0;
                do {
                    ++i;
                    hide(option, i, argv[i]);
                } while (many && i + 1 < argc && argv[i + 1][0] != '-');
                break;
            }
            if (std::strncmp(argv[i], option, length) == 0 && argv[i][length] == '=') {
                hide(option, i, argv[i] + length + 1);
                break;
            }
        }
    }
    return hidden;
}

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
