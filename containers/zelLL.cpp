// The intrusive doubly linked list.
//
// The head holds two sentinel nodes, so that every node of a list has two neighbours and neither insertion nor removal
// tests for an end; the accessors turn a sentinel into null. The bodies stand in the public header, where compilers may
// place them in line: a list call is a handful of stores, and a call through the library's linkage table costs more
// than that. This source gives each body its one ordinary definition, for callers that were compiled without inlining,
// take an address, or look the name up.
#define ZEL_DLL_LINKAGE
#include "zel/containers.h"
