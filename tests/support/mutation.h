// The switch of a source that scripts/mutate has changed: all its mutants are in it, and the
// environment variable VESK_MUTANT tells which one the program is.

#ifndef TESTS_SUPPORT_MUTATION_H_
#define TESTS_SUPPORT_MUTATION_H_

namespace vesk_test {

struct MutantSwitch {
  int mutant;              // 0: the program as it was written
  unsigned char* reached;  // one byte for each mutant, or null when nobody wants to know
};

const MutantSwitch& TheMutantSwitch();

}  // namespace vesk_test

// Whether the program is this mutant. Asked wherever the mutant differs.
//   Threads  any
inline bool vesk_mutant(int mutant) {
  const vesk_test::MutantSwitch& chosen = vesk_test::TheMutantSwitch();
  if (chosen.reached != nullptr) __atomic_store_n(chosen.reached + mutant, 1, __ATOMIC_RELAXED);
  return chosen.mutant == mutant;
}

#endif  // TESTS_SUPPORT_MUTATION_H_
