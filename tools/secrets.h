#pragma once

// Credentials and publisher identities as the tool reads them: from files
// kept out of the process list, and from a command line that shows them.

#include <stdexcept>
#include <vector>

#include "utility/string.h"

namespace jx {
namespace ferrow {
namespace cli {

// A mistake in what the user gave: the tool prints it as one line and exits
// 2, as for any invalid command line.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Checks each identity as ParseIdentity does; throws UsageError led by
// `what` ("protect: --publisher") for the first that is wrong.
void CheckIdentities(const std::vector<String>& identities, const String& what);

// Throws UsageError when `credentials` (the operator's) are empty: `command`
// changes access lists, which only the operator may.
void RequireOperator(const String& credentials, const String& command);

// The publisher identities of `path`, one a line (USER:PASSWORD or
// digest:USER:HASH), each trimmed of surrounding whitespace, with blank
// lines and lines starting with '#' skipped; each is checked as
// ParseIdentity checks it. Throws UsageError naming the file, and the line
// where one is wrong, never the line's text: it may hold a password.
std::vector<String> ReadPublishersFile(const String& path);

// The credentials (USER:PASSWORD) in `path`: its first line that is neither
// blank nor a '#' comment, trimmed. Throws UsageError when the file can be
// read or written by anyone but its owner, cannot be read, or holds none.
// `what` names where the file was given ("--auth-file", "the unit's
// credential") in errors.
String ReadAuthFile(const String& path, const String& what = "--auth-file");

// Replaces the password of every --auth, --publisher and --creator
// (USER:PASSWORD; never digest:USER:HASH) on the command line with one 'x',
// closing the gap, so that the process list shows neither the password nor
// its length once the tool has read it (argv is left pointing at the
// arguments where they now lie), and
// returns the options that had one. The caller warns: the password was
// visible until then, and stays in the shell's history.
std::vector<String> HidePasswordArguments(int argc, char** argv);

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
