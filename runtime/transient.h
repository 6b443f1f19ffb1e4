// Which errors of a store pass by themselves.

#ifndef RUNTIME_TRANSIENT_H_
#define RUNTIME_TRANSIENT_H_

namespace vesk {

// True: the same operation may well succeed soon, without anybody changing anything. False for what
// is not known: an error that is shown too early does less harm than one that is hidden.
//   Units    a positive errno value; 0 and RC_EOF are no errors, false
//   Threads  any
bool IsTransient(int error);

}  // namespace vesk

#endif  // RUNTIME_TRANSIENT_H_
