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
  // Where doubling puts the byte that was at `i`, and that it is there twice if it is a DLE of the data. A prover uses what
  // has a name only where the name stands.
  predicate placed{Before, After}(unsigned char* bytes, integer first, integer last, integer dles, integer i) =
      (first <= i < last ==>
          \at(bytes[i + dlesIn{Before}(bytes, first, i)], After) == \at(bytes[i], Before)) &&
      (last <= i < last + kTrailer ==> \at(bytes[i + dles], After) == \at(bytes[i], Before));
  predicate twice{Before, After}(unsigned char* bytes, integer first, integer last, integer i) =
      first <= i < last && \at(bytes[i], Before) == kDleByte ==>
      pairAt{After}(bytes, i + dlesIn{Before}(bytes, first, i));
*/

// doubleInPlace(), and what follows from its contract alone: among all that roundTrip() knows it is not found.
/*@
  requires first <= last && last + dles + kTrailer <= 0x7FFFFFFF;
  requires \valid(bytes + (first .. last + dles + kTrailer - 1));
  requires dles == dlesIn(bytes, first, last);
  requires \forall integer to; first <= to <= last ==> dlesGrow(bytes, first, to);
  assigns bytes[first .. last + dles + kTrailer - 1];
  ensures trailer: \forall integer i, at;
      last <= i < last + kTrailer && at <= i + dles <= at ==> bytes[at] == \old(bytes[i]);
  ensures kept: \forall integer i, at;
      first <= i < last && at <= i + dlesIn{Old}(bytes, first, i) <= at ==>
      bytes[at] == \old(bytes[i]);
  ensures placed: \forall integer i; placed{Pre, Here}(bytes, first, last, dles, i);
  ensures twice: \forall integer i; twice{Pre, Here}(bytes, first, last, i);
*/
static void doubleData(unsigned char* bytes, size_t first, size_t last, size_t dles)
{
    doubleInPlace(bytes, first, last, dles);
    /*@ assert data: \forall integer i, at;
          first <= i < last && at == i + dlesIn{Pre}(bytes, first, i) ==>
          bytes[at] == \at(bytes[i], Pre); */
    /*@ assert trailer: \forall integer i, at;
          last <= i < last + kTrailer && at == i + dles ==> bytes[at] == \at(bytes[i], Pre); */
    /*@ assert once: \forall integer i, at;
          first <= i < last && at == i + dlesIn{Pre}(bytes, first, i) &&
          \at(bytes[i], Pre) == kDleByte ==> bytes[at] == kDleByte; */
    /*@ assert again: \forall integer i, at;
          first <= i < last && at == i + dlesIn{Pre}(bytes, first, i) + 1 &&
          \at(bytes[i], Pre) == kDleByte ==> bytes[at] == kDleByte; */
}

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
    doubleData(bytes, first, last, dles);
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
    //@ assert data: twice{Pre, Here}(bytes, first, last, dle);
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
        //@ assert grown: i < last ==> dlesIn{Pre}(bytes, first, i) <= dlesIn{Pre}(bytes, first, last);
        //@ assert placed: placed{Pre, Here}(bytes, first, last, dles, i);
        //@ assert moved: \let k = i; bytes[at] == \at(bytes[k], Pre);
        //@ assert doubled: twice{Pre, Here}(bytes, first, last, i);
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
