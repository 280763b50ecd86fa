#pragma once

#include <cstddef>

// Survives a client that shrinks its shared memory object while the service has it mapped.
// Touching a page beyond the end of the object raises SIGBUS; the handler installed here maps
// zero pages over the whole registered block, so the faulting access completes, and marks the
// block lost. The owner polls `lost` and drops the client. Faults outside registered blocks keep
// their default action.
class ShmGuard {
  public:
    // Registers [addr, addr + size); returns a slot, or -1 when the table is full (the block is
    // then unguarded).
    static int add(void* addr, size_t size);
    // Unregisters a slot before its mapping goes away.
    static void remove(int slot);
    static bool lost(int slot);
};
