/*
 * What the proof assumes of the C library: memchr finds the first byte that has the value. Declared for bytes, since
 * the memory model of the proof has no memory without a type.
 */
#include <stddef.h>

/*@
  requires \valid_read(bytes + (0 .. size - 1));
  requires 0 <= value <= 0xFF;
  assigns \result \from bytes, value, size, bytes[0 .. size - 1];
  ensures \result == \null || \exists integer i; 0 <= i < size && \result == bytes + i && bytes[i] == value &&
      \forall unsigned char* p; bytes <= p < \result ==> *p != value;
  ensures \result == \null ==> \forall unsigned char* p; bytes <= p < bytes + size ==> *p != value;
*/
extern unsigned char* memchr(const unsigned char* bytes, int value, size_t size);
