#ifndef MICRO850_INTERNAL_FRAMEBYTES_H
#define MICRO850_INTERNAL_FRAMEBYTES_H

// All code that reads or writes the bytes of a frame through a plain pointer. It is C as well as
// C++. The comments that begin with @ are contracts in ACSL, and `./scripts/prove` proves them. No
// function allocates or keeps a pointer: the caller gives buffers that are large enough.

// The C headers, not <cstddef> and <cstring>, for C.
#include <stddef.h> // NOLINT(modernize-deprecated-headers)
#include <string.h> // NOLINT(modernize-deprecated-headers)

#ifdef __cplusplus
namespace framebytes {
#endif

enum {
    kDleByte = 0x10,
    kStxByte = 0x02,
    kEtxByte = 0x03,
    kAckByte = 0x06,
    kReflectedPolynomial = 0xA001,
    /// DLE ETX and two bytes of CRC.
    kTrailer = 4,
    /// The shortest reply that can hold a frame, and the first place where its ETX can be.
    kShortestReply = 24,
    kFirstEtx = 21,
    /// The longest element segment.
    kElementSegment = 6
};

/*@
  // The definition of the CRC, one bit at a time.
  logic integer shiftedOnce(integer crc, integer polynomial) =
      (crc & 1) != 0 ? (crc >> 1) ^ polynomial : crc >> 1;
  logic integer shifted(integer crc, integer polynomial, integer bits) =
      bits <= 0 ? crc : shiftedOnce(shifted(crc, polynomial, bits - 1), polynomial);
  logic integer crcStep(integer crc, integer byte, integer polynomial) =
      shifted(crc ^ byte, polynomial, 8);
  logic integer crcOver{L}(unsigned char* bytes, integer from, integer to, integer crc,
                           integer polynomial) =
      to <= from ? crc
                 : crcStep(crcOver(bytes, from, to - 1, crc, polynomial), bytes[to - 1],
                           polynomial);

  predicate pairAt{L}(unsigned char* bytes, integer at) =
      bytes[at] == kDleByte && bytes[at + 1] == kDleByte;
  // The number of DLEs from index `from` up to, and without, index `to`. In steps that a prover
  // takes only between two numbers that it has, or it would count for ever.
  axiomatic Dles {
    logic integer dlesIn{L}(unsigned char* bytes, integer from, integer to)
        reads bytes[from .. to - 1];
    axiom none{L}: \forall unsigned char* bytes, integer from, to;
        to <= from ==> dlesIn(bytes, from, to) == 0;
    axiom next{L}: \forall unsigned char* bytes, integer from, i, j; from <= i < j <= i + 1 ==>
        dlesIn(bytes, from, j) == dlesIn(bytes, from, i) + (bytes[i] == kDleByte ? 1 : 0);
  }
  // True of all bytes; countDles() shows it by induction.
  predicate dlesGrow{L}(unsigned char* bytes, integer from, integer to) =
      (\forall integer i; from <= i <= to ==>
          0 <= dlesIn(bytes, from, i) <= dlesIn(bytes, from, to)) &&
      (\forall integer i; from <= i < to && bytes[i] == kDleByte ==>
          dlesIn(bytes, from, i) < dlesIn(bytes, from, to));

  // The index of the byte that undoubling keeps next after the one at `at`.
  logic integer behind{L}(unsigned char* bytes, integer size, integer at) =
      at + 1 < size && bytes[at] == kDleByte && bytes[at + 1] == kDleByte ? at + 2 : at + 1;
  // The index of the byte that undoubling puts at `index`, if no pair begins before `first`.
  axiomatic Source {
    logic integer source{L}(unsigned char* bytes, integer first, integer size, integer index)
        reads bytes[first .. size - 1];
    axiom start{L}: \forall unsigned char* bytes, integer first, size, index;
        index <= first ==> source(bytes, first, size, index) == first;
    axiom step{L}: \forall unsigned char* bytes, integer first, size, i, j;
        first <= i < j <= i + 1 ==>
        source(bytes, first, size, j) == behind(bytes, size, source(bytes, first, size, i));
  }
*/

// ---- CRC ----------------------------------------------------------------------------------------

/// The reflected CRC-16 extended by one byte, bit by bit.
/*@
  requires crc <= 0xFFFF && polynomial <= 0xFFFF;
  assigns \nothing;
  ensures \result <= 0xFFFF;
  ensures definition: \result == crcStep(crc, byte, polynomial);
*/
static inline unsigned int crcShifted(unsigned int crc, unsigned char byte, unsigned int polynomial)
{
    crc ^= byte;
    /*@
      loop invariant 0 <= bit <= 8;
      loop invariant crc <= 0xFFFF;
      loop invariant crc == shifted(\at(crc, Pre) ^ byte, polynomial, bit);
      loop assigns bit, crc;
      loop variant 8 - bit;
    */
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 1u) != 0 ? crc >> 1 ^ polynomial : crc >> 1;
    return crc;
}

/// The same over `length` bytes.
/*@
  requires crc <= 0xFFFF && polynomial <= 0xFFFF;
  requires \valid_read(bytes + (0 .. length - 1));
  assigns \nothing;
  ensures \result <= 0xFFFF;
  ensures definition: \result == crcOver(bytes, 0, length, crc, polynomial);
*/
static inline unsigned int crcShiftedOver(const unsigned char* bytes, size_t length,
                                          unsigned int crc, unsigned int polynomial)
{
    /*@
      loop invariant 0 <= i <= length;
      loop invariant crc <= 0xFFFF;
      loop invariant crc == crcOver(bytes, 0, i, \at(crc, Pre), polynomial);
      loop assigns i, crc;
      loop variant length - i;
    */
    for (size_t i = 0; i < length; ++i)
        crc = crcShifted(crc, bytes[i], polynomial);
    return crc;
}

/// The CRC-16 with kReflectedPolynomial extended by one byte, with all bits of the byte at once. A
/// bit that is set adds the polynomial at its place, which with its leading 1 has the bits 0, 1, 14
/// and 16, and so turns the next bit round. The polynomial is therefore added at bit i if an odd
/// number of the bits 0 to i is set; of its bit 0 nothing is left. A read of an INT takes an eighth
/// fewer instructions than bit by bit.
/*@
  requires crc <= 0xFFFF;
  assigns \nothing;
  ensures \result <= 0xFFFF;
  ensures definition: \result == crcStep(crc, byte, kReflectedPolynomial);
*/
static inline unsigned int crcExtended(unsigned int crc, unsigned char byte)
{
    unsigned char odd = (unsigned char)(crc ^ byte);
    odd ^= (unsigned char)(odd << 1);
    odd ^= (unsigned char)(odd << 2);
    odd ^= (unsigned char)(odd << 4);
    const unsigned int places = odd;
    return crc >> 8 ^ places >> 7 ^ places << 6 ^ places << 8;
}

/// The same over the bytes from index `from` up to, and without, index `to`.
/*@
  requires crc <= 0xFFFF;
  requires from < to ==> \valid_read(bytes + (from .. to - 1));
  assigns \nothing;
  ensures \result <= 0xFFFF;
  ensures definition: \result == crcOver(bytes, from, to, crc, kReflectedPolynomial);
*/
static inline unsigned int crcOfRange(const unsigned char* bytes, size_t from, size_t to,
                                      unsigned int crc)
{
    /*@
      loop invariant from <= i && (from <= to ==> i <= to) && (to < from ==> i == from);
      loop invariant crc <= 0xFFFF;
      loop invariant crc == crcOver(bytes, from, i, \at(crc, Pre), kReflectedPolynomial);
      loop assigns i, crc;
      loop variant to - i;
    */
    for (size_t i = from; i < to; ++i)
        crc = crcExtended(crc, bytes[i]);
    return crc;
}

/// Size of the header that has `second` as its second byte: DLE ACK DLE STX, DLE STX, or none.
/*@
  assigns \nothing;
  ensures \result == (second == kAckByte ? 4 : second == kStxByte ? 2 : 0);
*/
static inline size_t headerSize(unsigned char second)
{
    return second == kAckByte ? 4 : second == kStxByte ? 2 : 0;
}

/// CRC of the undoubled data of a frame of `size` bytes, closed with ETX. The data begins after the
/// header and ends in front of index `end`.
/*@
  requires end <= size;
  requires \valid_read(bytes + (0 .. size - 1));
  assigns \nothing;
  ensures \result <= 0xFFFF;
  ensures definition:
      \let first = size > 1 && bytes[1] == kAckByte ? 4 : size > 1 && bytes[1] == kStxByte ? 2 : 0;
      \result == crcStep(crcOver(bytes, first, end, 0, kReflectedPolynomial), kEtxByte,
                         kReflectedPolynomial);
*/
static inline unsigned int frameCrc(const unsigned char* bytes, size_t size, size_t end)
{
    const size_t first = headerSize(size > 1 ? bytes[1] : 0);
    return crcExtended(crcOfRange(bytes, first, end, 0), kEtxByte);
}

// ---- Pairs of DLEs ------------------------------------------------------------------------------

/// Index of the first DLE from `from` on, `to` for none.
/*@
  requires from <= to;
  requires \valid_read(bytes + (from .. to - 1));
  assigns \nothing;
  ensures from <= \result <= to;
  ensures \result < to ==> bytes[\result] == kDleByte;
  ensures \forall integer i; from <= i < \result ==> bytes[i] != kDleByte;
*/
static inline size_t nextDle(const unsigned char* bytes, size_t from, size_t to)
{
    // cppcheck-suppress cstyleCast
    const unsigned char* at = (const unsigned char*)memchr(bytes + from, kDleByte, to - from);
    return at ? (size_t)(at - bytes) : to;
}

/// Index of the first pair of DLEs from `from` on that ends before index `to`, `to` for none.
/*@
  requires from <= to;
  requires \valid_read(bytes + (from .. to - 1));
  assigns \nothing;
  ensures from <= \result <= to;
  ensures \result < to ==> \result + 1 < to && pairAt(bytes, \result);
  ensures \forall integer i; from <= i < \result && i + 1 < to ==> !pairAt(bytes, i);
*/
static inline size_t firstPair(const unsigned char* bytes, size_t from, size_t to)
{
    /*@
      loop invariant \at(from, Pre) <= from <= to;
      loop invariant
          \forall integer i; \at(from, Pre) <= i < from && i + 1 < to ==> !pairAt(bytes, i);
      loop assigns from;
      loop variant to - from;
    */
    while (from < to) {
        from = nextDle(bytes, from, to);
        if (to - from < 2)
            return to;
        if (bytes[from + 1] == kDleByte)
            return from;
        ++from;
    }
    return to;
}

/// Number of DLEs from index `from` up to, and without, index `to`.
/*@
  requires from <= to;
  requires \valid_read(bytes + (from .. to - 1));
  assigns \nothing;
  ensures \result <= to - from;
  ensures \result == dlesIn(bytes, from, to);
  ensures \forall integer last; from <= last <= to ==> dlesGrow(bytes, from, last);
*/
static inline size_t countDles(const unsigned char* bytes, size_t from, size_t to)
{
    size_t dles = 0;
    /*@
      loop invariant from <= i <= to;
      loop invariant dles <= i - from;
      loop invariant dles == dlesIn(bytes, from, i);
      loop invariant \forall integer last; from <= last <= i ==> dlesGrow(bytes, from, last);
      loop assigns i, dles;
      loop variant to - i;
    */
    for (size_t i = from; i < to; ++i)
        dles += bytes[i] == kDleByte ? 1 : 0;
    return dles;
}

/// Doubles the DLEs from index `first` up to, and without, index `last`, and moves the kTrailer
/// bytes behind them. `dles` is their number, and there is room for as many bytes more. From the
/// back, so that nothing is moved twice.
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
  ensures doubled: \forall integer i, at;
      first <= i < last && at <= i + dlesIn{Old}(bytes, first, i) + 1 <= at &&
      \old(bytes[i]) == kDleByte ==> bytes[at] == kDleByte;
*/
static inline void doubleInPlace(unsigned char* bytes, size_t first, size_t last, size_t dles)
{
    (void)first; // only the statements need it
    size_t from = last + kTrailer;
    size_t to = from + dles;
    /*@
      loop invariant first <= from <= last + kTrailer && from <= to;
      loop invariant from <= last ==> dlesGrow{Pre}(bytes, first, from);
      loop invariant from <= last ==> to == from + dlesIn{Pre}(bytes, first, from);
      loop invariant from >= last ==> to == from + dles;
      loop invariant \forall integer i; first <= i < from ==> bytes[i] == \at(bytes[i], Pre);
      loop invariant \forall integer i; from <= i < last ==>
          to <= i + dlesIn{Pre}(bytes, first, i) < last + dles;
      loop invariant trailer: \forall integer i, at;
          from <= i < last + kTrailer && last <= i && at <= i + dles <= at ==>
          bytes[at] == \at(bytes[i], Pre);
      loop invariant kept: \forall integer i, at;
          from <= i < last && at <= i + dlesIn{Pre}(bytes, first, i) <= at ==>
          bytes[at] == \at(bytes[i], Pre);
      loop invariant doubled: \forall integer i, at;
          from <= i < last && at <= i + dlesIn{Pre}(bytes, first, i) + 1 <= at &&
          \at(bytes[i], Pre) == kDleByte ==> bytes[at] == kDleByte;
      loop assigns from, to, bytes[first .. last + dles + kTrailer - 1];
      loop variant from;
    */
    while (from != to) {
        const unsigned char byte = bytes[--from];
        //@ assert from <= last ==> dlesGrow{Pre}(bytes, first, from);
        bytes[--to] = byte;
        if (byte == kDleByte && from < last)
            bytes[--to] = byte;
        //@ assert from <= last ==> to == from + dlesIn{Pre}(bytes, first, from);
    }
    /*@ assert \forall integer i; first <= i <= from && i <= last ==>
          dlesIn{Pre}(bytes, first, i) == 0; */
}

/// Replaces each pair of DLEs by one, from the first pair on, which is at index `pair`. Returns the
/// new size.
/*@
  requires pair <= size;
  requires \valid(bytes + (0 .. size - 1));
  assigns bytes[pair .. size - 1];
  ensures pair <= \result <= size;
  ensures source{Old}(bytes, pair, size, \result) == size;
  ensures \forall integer i; pair <= i < \result ==>
      source{Old}(bytes, pair, size, i) < size &&
      bytes[i] == \old(bytes[source(bytes, pair, size, i)]);
*/
static inline size_t undoubleInPlace(unsigned char* bytes, size_t pair, size_t size)
{
    size_t from = pair;
    size_t to = pair;
    /*@
      loop invariant pair <= to <= from <= size;
      loop invariant from == source{Pre}(bytes, pair, size, to);
      loop invariant \forall integer i; pair <= i < to ==>
          source{Pre}(bytes, pair, size, i) < size &&
          bytes[i] == \at(bytes[source(bytes, pair, size, i)], Pre);
      loop invariant \forall integer i; from <= i < size ==> bytes[i] == \at(bytes[i], Pre);
      loop assigns from, to, bytes[pair .. size - 1];
      loop variant size - from;
    */
    while (from < size) {
        const unsigned char byte = bytes[from++];
        bytes[to++] = byte;
        if (byte == kDleByte && from < size && bytes[from] == kDleByte)
            ++from;
    }
    return to;
}

// ---- Replies as received ------------------------------------------------------------------------

/// Where the data of a reply begins. The size of the header counts undoubled bytes.
/*@
  requires \valid_read(bytes + (0 .. kShortestReply - 1));
  assigns \nothing;
  ensures \result <= 8;
*/
static inline size_t dataBegin(const unsigned char* bytes)
{
    const int isDoubled = bytes[0] == kDleByte && bytes[1] == kDleByte;
    const size_t header = headerSize(bytes[isDoubled ? 2 : 1]);
    size_t at = 0;
    /*@
      loop invariant 0 <= i <= header;
      loop invariant at <= 2 * i;
      loop assigns i, at;
      loop variant header - i;
    */
    for (size_t i = 0; i < header; ++i)
        at += bytes[at] == kDleByte && bytes[at + 1] == kDleByte ? 2 : 1;
    return at;
}

/// Index of the first ETX from `etx` on that follows a DLE, `last` for none in front of it.
/*@
  requires 1 <= etx <= last;
  requires \valid_read(bytes + (etx - 1 .. last - 1));
  assigns \nothing;
  ensures etx <= \result <= last;
  ensures \result < last ==> bytes[\result - 1] == kDleByte && bytes[\result] == kEtxByte;
  ensures \forall integer i; etx <= i < \result ==>
      bytes[i - 1] != kDleByte || bytes[i] != kEtxByte;
*/
static inline size_t nextEnd(const unsigned char* bytes, size_t etx, size_t last)
{
    /*@
      loop invariant \at(etx, Pre) <= etx <= last;
      loop invariant \forall integer i; \at(etx, Pre) <= i < etx ==>
          bytes[i - 1] != kDleByte || bytes[i] != kEtxByte;
      loop assigns etx;
      loop variant last - etx;
    */
    while (etx < last && (bytes[etx] != kEtxByte || bytes[etx - 1] != kDleByte))
        ++etx;
    return etx;
}

/// Where the data ends that begins at `begin` and is closed by the ETX at index `etx`, which
/// follows a DLE: in front of that DLE, or of the pair that it ends.
/*@
  requires begin < etx;
  requires \valid_read(bytes + (begin .. etx));
  requires bytes[etx - 1] == kDleByte;
  assigns \nothing;
  ensures begin <= \result < etx;
*/
static inline size_t dataEnd(const unsigned char* bytes, size_t begin, size_t etx)
{
    size_t run = etx;
    /*@
      loop invariant begin <= run <= etx;
      loop invariant \forall integer i; run <= i < etx ==> bytes[i] == kDleByte;
      loop assigns run;
      loop variant run;
    */
    while (run > begin && bytes[run - 1] == kDleByte)
        --run;
    return etx - ((etx - run) % 2 == 0 ? 2 : 1);
}

/// The CRC extended by the undoubled form of the bytes from index `from` up to, and without, index
/// `to`.
/*@
  requires crc <= 0xFFFF;
  requires from <= to;
  requires \valid_read(bytes + (from .. to - 1));
  assigns \nothing;
  ensures \result <= 0xFFFF;
*/
static inline unsigned int crcOfUndoubled(const unsigned char* bytes, size_t from, size_t to,
                                          unsigned int crc)
{
    size_t pair = firstPair(bytes, from, to);
    /*@
      loop invariant crc <= 0xFFFF;
      loop invariant \at(from, Pre) <= from <= pair <= to;
      loop invariant pair < to ==> pair + 1 < to;
      loop assigns from, pair, crc;
      loop variant to - pair;
    */
    while (pair < to) {
        crc = crcOfRange(bytes, from, pair + 1, crc);
        from = pair + 2;
        pair = firstPair(bytes, from, to);
    }
    return crcOfRange(bytes, from, to, crc);
}

/// 1 if the reply, as received, holds a complete frame with the right CRC, otherwise 0.
/*@
  requires \valid_read(bytes + (0 .. size - 1));
  assigns \nothing;
  ensures \result == 0 || \result == 1;
  ensures \result == 1 ==> \exists integer etx; kFirstEtx <= etx < size - 2 &&
      bytes[etx - 1] == kDleByte && bytes[etx] == kEtxByte;
*/
static inline int holdsFrame(const unsigned char* bytes, size_t size)
{
    if (size < kShortestReply)
        return 0;
    const size_t last = size - 2;
    unsigned int crc = 0;
    size_t next = dataBegin(bytes);
    size_t etx = nextEnd(bytes, kFirstEtx, last);
    // Each pair of bytes 10 03 is the end or, after a doubled DLE, data. The CRC decides, and the
    // search goes on. The CRC is extended along with it, so many candidates cost no more than one.
    /*@
      loop invariant kFirstEtx <= etx <= last;
      loop invariant etx < last ==> bytes[etx - 1] == kDleByte && bytes[etx] == kEtxByte;
      loop invariant next < etx;
      loop invariant crc <= 0xFFFF;
      loop assigns etx, next, crc;
      loop variant last - etx;
    */
    while (etx < last) {
        const size_t end = dataEnd(bytes, next, etx);
        crc = crcOfUndoubled(bytes, next, end, crc);
        if (crcExtended(crc, kEtxByte) == bytes[etx + 1] + 0x100u * bytes[etx + 2])
            return 1;
        next = end;
        etx = nextEnd(bytes, etx + 1, last);
    }
    return 0;
}

// ---- Parts of a request -------------------------------------------------------------------------

/// Writes the low `size` bytes of the value, low byte first.
/*@
  requires \valid(to + (0 .. size - 1));
  assigns to[0 .. size - 1];
  ensures size > 0 ==> to[0] == value % 0x100;
  ensures size > 1 ==> to[1] == value / 0x100 % 0x100;
  ensures size > 2 ==> to[2] == value / 0x10000 % 0x100;
  ensures size > 3 ==> to[3] == value / 0x1000000;
  ensures \forall integer i; 4 <= i < size ==> to[i] == 0;
*/
static inline void putNumber(unsigned char* to, unsigned int value, size_t size)
{
    /*@
      loop invariant 0 <= i <= size;
      loop invariant i == 0 ==> value == \at(value, Pre);
      loop invariant i == 1 ==> value == \at(value, Pre) / 0x100;
      loop invariant i == 2 ==> value == \at(value, Pre) / 0x10000;
      loop invariant i == 3 ==> value == \at(value, Pre) / 0x1000000;
      loop invariant i >= 4 ==> value == 0;
      loop invariant i > 0 ==> to[0] == \at(value, Pre) % 0x100;
      loop invariant i > 1 ==> to[1] == \at(value, Pre) / 0x100 % 0x100;
      loop invariant i > 2 ==> to[2] == \at(value, Pre) / 0x10000 % 0x100;
      loop invariant i > 3 ==> to[3] == \at(value, Pre) / 0x1000000;
      loop invariant \forall integer j; 4 <= j < i ==> to[j] == 0;
      loop assigns i, value, to[0 .. size - 1];
      loop variant size - i;
    */
    for (size_t i = 0; i < size; ++i) {
        to[i] = (unsigned char)(value % 0x100);
        value /= 0x100;
    }
}

/// Writes the tag name after the code of its symbol segment: its length, a byte for each character,
/// and a pad if the length is odd. A character outside the tag alphabet becomes 00; QString's own
/// conversions put a question mark there. Returns the number of bytes written.
/*@
  requires length <= 0x7FFFFFFF;
  requires \valid(to + (0 .. length + length % 2));
  requires \valid_read(name + (0 .. length - 1));
  requires \separated(to + (0 .. length + length % 2), name + (0 .. length - 1));
  assigns to[0 .. length + length % 2];
  ensures \result == 1 + length + length % 2;
  ensures to[0] == length % 0x100;
  ensures \forall integer i; 0 <= i < length ==> to[1 + i] == (name[i] > 0xFF ? 0 : name[i]);
  ensures length % 2 == 1 ==> to[1 + length] == 0;
*/
static inline size_t putTagName(unsigned char* to, const unsigned short* name, size_t length)
{
    to[0] = (unsigned char)(length % 0x100);
    /*@
      loop invariant 0 <= i <= length;
      loop invariant to[0] == length % 0x100;
      loop invariant \forall integer j; 0 <= j < i ==>
          to[1 + j] == (name[j] > 0xFF ? 0 : name[j]);
      loop assigns i, to[1 .. length];
      loop variant length - i;
    */
    for (size_t i = 0; i < length; ++i)
        to[1 + i] = (unsigned char)(name[i] > 0xFF ? 0 : name[i]);
    if (length % 2 == 1)
        to[1 + length] = 0;
    return 1 + length + length % 2;
}

/// Writes the element segment, which element 0 does not have. Returns its size, at most
/// kElementSegment.
/*@
  requires \valid(to + (0 .. kElementSegment - 1));
  assigns to[0 .. kElementSegment - 1];
  ensures \result == (element == 0 ? 0 : element < 0x100 ? 2 : element < 0x10000 ? 4 : 6);
  ensures 0 < element < 0x100 ==> to[0] == 0x28 && to[1] == element;
  ensures 0x100 <= element < 0x10000 ==>
      to[0] == 0x29 && to[1] == 0 && to[2] + 0x100 * to[3] == element;
  ensures 0x10000 <= element ==>
      to[0] == 0x30 && to[1] == 0 &&
      to[2] + 0x100 * to[3] + 0x10000 * to[4] + 0x1000000 * to[5] == element;
*/
static inline size_t putElement(unsigned char* to, unsigned int element)
{
    if (element == 0)
        return 0;
    if (element < 0x100) {
        to[0] = 0x28;
        putNumber(to + 1, element, 1);
        return 2;
    }
    const int isShort = element < 0x10000;
    putNumber(to, isShort ? 0x29 : 0x30, 2);
    putNumber(to + 2, element, isShort ? 2 : 4);
    return isShort ? 4 : 6;
}

/// Writes DLE ETX and the CRC.
/*@
  requires crc <= 0xFFFF;
  requires \valid(to + (0 .. kTrailer - 1));
  assigns to[0 .. kTrailer - 1];
  ensures to[0] == kDleByte && to[1] == kEtxByte && to[2] + 0x100 * to[3] == crc;
*/
static inline void putTrailer(unsigned char* to, unsigned int crc)
{
    to[0] = kDleByte;
    to[1] = kEtxByte;
    to[2] = (unsigned char)(crc % 0x100);
    to[3] = (unsigned char)(crc / 0x100);
}

#ifdef __cplusplus
} // namespace framebytes
#endif

#endif
