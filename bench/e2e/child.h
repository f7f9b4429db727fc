#pragma once

// The measuring child process. The parent re-executes the benchmark binary
// with "--child" so that every measurement runs in a fresh process with a
// fresh session, and its memory and CPU time belong to one client alone.
//
//   --child sync  --client ferrow|baseline --zk C --service S --n N [--updates K]
//       initial sync of N instances, the process's resources, then (K > 0)
//       K updates made one at a time by a writer session, timed to the
//       client's modification notice;
//   --child churn --client ferrow|baseline --zk C --service S --n N --joins J
//       after syncing N instances, J instances join one at a time: a writer
//       session creates one, waits until the client reports it added, then
//       creates the next; timed from the first creation to the last notice.
//       The J nodes are deleted again before the process exits.
//   --resolution-delay MS (baseline only): see MakeBaselineClient.
//
// The child prints its figures as "CHILD key=value" lines on stdout and exits
// 0, or prints the failure on stderr and exits 1.

namespace jx {
namespace bench {

// argv[1] is "--child".
int RunChild(int argc, char** argv);

}  // namespace bench
}  // namespace jx
