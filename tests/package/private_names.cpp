// A host that uses all private names of the driver for itself. tests/package/private-names compiles
// it with the installed headers, once for each kind of thing that a name can stand for.

#if defined(AS_NAMESPACES)
#define DECLARE(name)                                                                              \
    namespace name {                                                                               \
    const int one = 1;                                                                             \
    }
#elif defined(AS_TYPES)
#define DECLARE(name)                                                                              \
    struct name                                                                                    \
    {                                                                                              \
        char letters[7];                                                                           \
    };
#elif defined(AS_FUNCTIONS)
#define DECLARE(name)                                                                              \
    int name(int value)                                                                            \
    {                                                                                              \
        return value;                                                                              \
    }
#elif defined(AS_OBJECTS)
#define DECLARE(name) double name = 0.5;
#endif

// clang-format off
#define FOR_ALL(X) \
    X(Address) X(Builder) X(Header) X(InfoByte) X(LeafLocker) X(Offset) X(RequestList) \
    X(TypeClass) X(addressOf) X(beginExchange) X(byteAt) X(classOf) X(crc16) X(driverstate) \
    X(extended) X(failed) X(frame) X(fromHexText) X(growTo) X(headerOf) X(inFlight) \
    X(isConfirmed) X(kAck) X(kBool) X(kByte) X(kClass) X(kConfirmation) X(kConnectionHigh) \
    X(kConnectionLow) X(kCrcSize) X(kCyclicRead) X(kDle) X(kDoubleWord) X(kEtx) X(kInfoSize) \
    X(kLargestValue) X(kNoListYet) X(kOneShotRead) X(kPath) X(kPathSize) X(kQuadWord) \
    X(kReflectedPolynomial) X(kRoomForRequestTail) X(kSequence) X(kShortString) X(kStx) \
    X(kTrailerSize) X(kTransactionHigh) X(kTransactionLow) X(kTypeHigh) X(kTypeLow) \
    X(kUnknownClass) X(kValueType) X(kValues) X(kVariableLength) X(kWord) X(kWrite) X(latin1) \
    X(leaf) X(qtcompat) X(queue) X(repatchConnectionRequest) X(roomForTagName) X(seededInfo) \
    X(seededRandom) X(swapItems) X(tagstore) X(undouble)
// clang-format on

FOR_ALL(DECLARE)
