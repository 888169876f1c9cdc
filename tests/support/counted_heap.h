// The bytes that were asked of the heap and not given back, in all threads. The program that is built
// with counted_heap.cpp has its malloc and free in place of the C library's, which do the work. What
// was asked for is exact: the C library's blocks are now and then a little larger.
#pragma once

long live_heap_bytes();
