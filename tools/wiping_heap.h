// Memory of the heap is wiped before it is given back: keys pass through strings, XML trees and
// JSON readers whose own clean-up does not wipe.
#ifndef ZENTRAVA_TOOLS_WIPING_HEAP_H
#define ZENTRAVA_TOOLS_WIPING_HEAP_H

// Makes libxml2 and the C library wipe what they free; C++'s operator delete always does. To be
// called once, before libxml2 is first used.
void begin_wiping_heap();

// Overwrites what finished calls left on the stack below the caller: what the dynamic linker found
// in the processor's registers, for one, when it bound a function.
void wipe_stack();

#endif
