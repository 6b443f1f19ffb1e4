// Which errors are worth another try.

#include "runtime/transient.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "vesk/VeskJob.h"

namespace vesk_test {
namespace {

using vesk::IsTransient;

TEST(TransientTest, ErrorsOfDevicesResourcesAndConnectionsPass) {
  for (const int error :
       {EIO,    EREMOTEIO, EBUSY,        ETIMEDOUT, EAGAIN,      EWOULDBLOCK,  EINTR,
        ENOMEM, ENOBUFS,   EMFILE,       ENFILE,    ECONNRESET,  ECONNABORTED, ENOTCONN,
        EPIPE,  ENETRESET, ECONNREFUSED, ENETDOWN,  ENETUNREACH, EHOSTDOWN,    EHOSTUNREACH}) {
    EXPECT_TRUE(IsTransient(error)) << error;
  }
}

TEST(TransientTest, ErrorsThatSomebodyHasToActOnDoNot) {
  for (const int error : {ENOSPC, EDQUOT, EROFS, EACCES, EPERM, ETXTBSY, ENODEV, ENXIO}) {
    EXPECT_FALSE(IsTransient(error)) << error;
  }
}

TEST(TransientTest, AnswersWrongRequestsAndCallingOffDoNot) {
  for (const int error : {ENOENT, EEXIST, EISDIR, ENOTDIR, EFBIG, EINVAL, ENOTSUP, EOPNOTSUPP,
                          ESTALE, ESHUTDOWN, ECANCELED}) {
    EXPECT_FALSE(IsTransient(error)) << error;
  }
}

TEST(TransientTest, WhatIsNoErrorOrUnknownDoesNot) {
  for (const int result : {0, vesk::RC_EOF, -EIO, 1000, 1001, 12345}) {
    EXPECT_FALSE(IsTransient(result)) << result;
  }
}

}  // namespace
}  // namespace vesk_test
