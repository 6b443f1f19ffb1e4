#include "runtime/transient.h"

#include <cerrno>

namespace vesk {

namespace {

struct Row {
  int error;
  bool transient;
};

// Errors that are missing here do not pass. Those that might be taken for passing ones stand here
// with the reason why they are not.
// clang-format off
constexpr Row kErrors[] = {
    // The device or the store behind it
    {EIO,          true},   // also what a cable, a path or a remote store out of order gives
    {EREMOTEIO,    true},   // EIO of the far end
    {EBUSY,        true},   // somebody else is using it now
    {ETIMEDOUT,    true},   // slow today

    // The system's resources
    {EAGAIN,       true},   // says so itself; also EWOULDBLOCK
    {EINTR,        true},   // a signal came in between
    {ENOMEM,       true},   // memory comes back
    {ENOBUFS,      true},   // likewise, of the network
    {EMFILE,       true},   // other transfers close their descriptors
    {ENFILE,       true},   // likewise, of other processes

    // The way to a remote store
    {ECONNRESET,   true},   // the next try makes a new connection
    {ECONNABORTED, true},   // likewise
    {ENOTCONN,     true},   // likewise
    {EPIPE,        true},   // likewise
    {ENETRESET,    true},   // likewise
    {ECONNREFUSED, true},   // the server restarts
    {ENETDOWN,     true},   // networks are repaired
    {ENETUNREACH,  true},   // likewise
    {EHOSTDOWN,    true},   // hosts come back
    {EHOSTUNREACH, true},   // likewise

    // Stays until somebody acts
    {ENOSPC,       false},  // somebody has to make room
    {EDQUOT,       false},  // likewise
    {EROFS,        false},  // mounted so, or made so after damage
    {EACCES,       false},  // a matter of permissions
    {EPERM,        false},  // likewise
    {ETXTBSY,      false},  // as long as a program runs: hours rather than seconds
    {ENODEV,       false},  // the device was taken away
    {ENXIO,        false},  // likewise

    // Stays whatever happens
    {ENOENT,       false},  // an answer, not a failure
    {EISDIR,       false},  // likewise
    {EFBIG,        false},  // the store's limit
    {EINVAL,       false},  // the request is wrong
    {ENOTSUP,      false},  // the store cannot do it; also EOPNOTSUPP
    {ESTALE,       false},  // the file behind the handle is gone for good

    // Meant by whoever ended the job
    {ESHUTDOWN,    false},
    {ECANCELED,    false},
};
// clang-format on

}  // namespace

bool IsTransient(int error) {
  for (const Row& row : kErrors) {
    if (row.error == error) return row.transient;
  }
  return false;
}

}  // namespace vesk
