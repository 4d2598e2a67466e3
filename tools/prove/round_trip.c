/*
 * The proof that undoubling what was doubled gives it back. The driver calls the same functions in the same order. The
 * two loops change nothing: they show, byte by byte, where doubling puts it and where undoubling finds it.
 */
#include "../../src/internal/FrameBytes.h"

/*@
  // A frame before doubling: header, data, DLE ETX and a CRC whose bytes are not both 10.
  predicate frame{L}(unsigned char* bytes, integer first, integer last) =
      (first == 2 || first == 4) && first <= last &&
      bytes[0] == kDleByte && bytes[1] == (first == 2 ? kStxByte : kAckByte) &&
      (first == 4 ==> bytes[2] == kDleByte && bytes[3] == kStxByte) &&
      bytes[last] == kDleByte && bytes[last + 1] == kEtxByte && !pairAt(bytes, last + 2);
*/

/*@
  requires first <= last && 2 * (last + kTrailer) <= 0x7FFFFFFF;
  requires \valid(bytes + (0 .. 2 * (last + kTrailer) - 1));
  requires frame(bytes, first, last);
  assigns bytes[0 .. 2 * (last + kTrailer) - 1];
  ensures size: \result == last + kTrailer;
  ensures same: \forall integer i; 0 <= i < last + kTrailer ==> bytes[i] == \old(bytes[i]);
*/
size_t roundTrip(unsigned char* bytes, size_t first, size_t last)
{
    const size_t dle = nextDle(bytes, first, last);
    if (dle == last) {
        //@ assert \forall integer i; 0 <= i < last + kTrailer - 1 ==> !pairAt(bytes, i);
        const size_t pair = firstPair(bytes, 0, last + kTrailer);
        return undoubleInPlace(bytes, pair, last + kTrailer);
    }
    /*@
      loop invariant first <= i <= dle;
      loop invariant dlesIn(bytes, first, i) == 0;
      loop invariant \forall integer j; first <= j <= i ==> dlesIn(bytes, first, j) == 0;
      loop assigns i;
      loop variant dle - i;
    */
    for (size_t i = first; i < dle; ++i)
        ;
    const size_t dles = countDles(bytes, first, last);
    doubleInPlace(bytes, first, last, dles);
    const size_t size = last + dles + kTrailer;
    //@ assert dleEtx: bytes[last + dles] == kDleByte && bytes[last + dles + 1] == kEtxByte;
    //@ assert low: bytes[last + dles + 2] == \at(bytes[last + 2], Pre);
    //@ assert high: bytes[last + dles + 3] == \at(bytes[last + 3], Pre);
    //@ assert crc: !pairAt(bytes, last + dles + 2);
    //@ assert end: \forall integer i; last + dles <= i < size - 1 ==> !pairAt(bytes, i);
    //@ assert header: \forall integer i; 0 <= i < first ==> bytes[i] == \at(bytes[i], Pre);
    //@ assert none: \forall integer i; first <= i <= dle ==> dlesIn{Pre}(bytes, first, i) == 0;
    /*@ assert still: \forall integer i;
          first <= i <= dle && i <= i + dlesIn{Pre}(bytes, first, i) <= i ==>
          bytes[i] == \at(bytes[i], Pre); */
    //@ assert plain: \forall integer i; first <= i <= dle ==> bytes[i] == \at(bytes[i], Pre);
    //@ assert here: pairAt(bytes, dle);
    //@ assert first: \forall integer i; 0 <= i < dle ==> !pairAt(bytes, i);
    const size_t pair = firstPair(bytes, 0, size);
    //@ assert found: pair == dle;
    size_t at = pair;
    /*@
      loop invariant pair <= i <= last + kTrailer;
      loop invariant at == source(bytes, pair, size, i);
      loop invariant data: i <= last ==> at == i + dlesIn{Pre}(bytes, first, i);
      loop invariant end: i >= last ==> at == i + dles;
      loop invariant inside: \forall integer j; pair <= j < i ==> source(bytes, pair, size, j) < at;
      loop invariant value: \forall integer j; pair <= j < i ==>
          bytes[source(bytes, pair, size, j)] == \at(bytes[j], Pre);
      loop assigns i, at;
      loop variant last + kTrailer - i;
    */
    for (size_t i = pair; i < last + kTrailer; ++i) {
        //@ assert moved: \let k = i; bytes[at] == \at(bytes[k], Pre);
        //@ assert pair: i < last && bytes[at] == kDleByte ==> pairAt(bytes, at);
        /*@ assert i < last ==>
              dlesIn{Pre}(bytes, first, i + 1) ==
              dlesIn{Pre}(bytes, first, i) + (bytes[at] == kDleByte ? 1 : 0); */
        //@ assert i >= last && at + 1 < size ==> !pairAt(bytes, at);
        at += at + 1 < size && bytes[at] == kDleByte && bytes[at + 1] == kDleByte ? 2 : 1;
        //@ assert at == source(bytes, pair, size, i + 1);
    }
    const size_t undoubled = undoubleInPlace(bytes, pair, size);
    //@ assert begin: \forall integer i; 0 <= i < pair ==> bytes[i] == \at(bytes[i], Pre);
    /*@ assert rest: \forall integer i;
          pair <= i < last + kTrailer ==> bytes[i] == \at(bytes[i], Pre); */
    return undoubled;
}
