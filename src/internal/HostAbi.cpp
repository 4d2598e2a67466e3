// Offsets and sizes of the records that hosts and driver share. A host was compiled with them, so
// that a change breaks it.

#include "Device_Driver.h"
#include "Func_Initi.h"

#include <cstddef>
#include <type_traits>

namespace {

// Offset of a 32-bit word of the settings record.
constexpr std::size_t word(std::size_t number)
{
    return 4 * number;
}

constexpr std::size_t at(std::size_t bytes32, std::size_t bytes64)
{
    return sizeof(void*) == 8 ? bytes64 : bytes32;
}

static_assert(sizeof(int) == 4, "the host's records have 32-bit integers");
static_assert(offsetof(RW_VAR, varType) == 0, "host ABI");
static_assert(offsetof(RW_VAR, varIndex) == 4, "host ABI");
static_assert(offsetof(RW_VAR, accessMode) == 8, "host ABI");
static_assert(offsetof(RW_VAR, hostField3) == 12, "host ABI");
static_assert(offsetof(RW_VAR, linkId) == 16, "host ABI");
static_assert(offsetof(RW_VAR, retValue) == 20, "host ABI");
static_assert(offsetof(RW_VAR, tagName) == 24, "host ABI");
static_assert(offsetof(RW_VAR, addressText) == at(28, 32), "host ABI");
static_assert(offsetof(RW_VAR, areaType) == at(32, 40), "host ABI");
static_assert(offsetof(RW_VAR, startAddress) == at(36, 44), "host ABI");
static_assert(offsetof(RW_VAR, stationNo) == at(40, 48), "host ABI");
static_assert(offsetof(RW_VAR, count) == at(44, 52), "host ABI");
static_assert(offsetof(RW_VAR, reqFlag) == at(48, 56), "host ABI");
static_assert(offsetof(RW_VAR, onceFlag) == at(52, 60), "host ABI");
static_assert(offsetof(RW_VAR, data) == at(56, 64), "host ABI");
static_assert(sizeof(RW_VAR) == at(60, 72), "host ABI");

static_assert(offsetof(Protocol, frame) == 0, "host ABI");
static_assert(offsetof(Protocol, sendLength) == at(4, 8), "host ABI");
static_assert(offsetof(Protocol, replyLength) == at(8, 12), "host ABI");
static_assert(offsetof(Protocol, auxLength) == at(12, 16), "host ABI");
static_assert(offsetof(Protocol, auxFlag) == at(16, 20), "host ABI");
static_assert(offsetof(Protocol, var) == at(20, 24), "host ABI");
static_assert(offsetof(Protocol, reserve1) == at(80, 96), "host ABI");
static_assert(offsetof(Protocol, reserve2) == at(84, 100), "host ABI");
static_assert(offsetof(Protocol, reserve3) == at(88, 104), "host ABI");
static_assert(sizeof(Protocol) == at(92, 112), "host ABI");

static_assert(offsetof(varName, name) == 0, "host ABI");
static_assert(offsetof(varName, kind) == at(4, 8), "host ABI");
static_assert(offsetof(varName, hostField2) == at(8, 12), "host ABI");
static_assert(offsetof(varName, hostField3) == at(12, 16), "host ABI");
static_assert(sizeof(varName) == at(16, 24), "host ABI");

static_assert(std::is_standard_layout<ComInfo>::value, "host ABI");
static_assert(offsetof(ComInfo, defaultStation) == word(6), "host ABI");
static_assert(offsetof(ComInfo, retryLimit) == word(7), "host ABI");
static_assert(offsetof(ComInfo, failureCount) == word(8), "host ABI");
static_assert(offsetof(ComInfo, multiStation) == word(9), "host ABI");
static_assert(offsetof(ComInfo, clearedWord10) == word(10), "host ABI");
static_assert(offsetof(ComInfo, frameCount) == word(11), "host ABI");
static_assert(offsetof(ComInfo, framesAnswered) == word(12), "host ABI");
static_assert(offsetof(ComInfo, clearedWord13) == word(13), "host ABI");
static_assert(offsetof(ComInfo, remoteMode) == word(14), "host ABI");
static_assert(offsetof(ComInfo, localLink) == word(15), "host ABI");
static_assert(offsetof(ComInfo, writeMode) == word(16), "host ABI");
static_assert(offsetof(ComInfo, passComplete) == word(17), "host ABI");
static_assert(offsetof(ComInfo, callbackChannel) == word(18), "host ABI");

static_assert(offsetof(HOSTVAR, areaType) == 1, "host ABI");
static_assert(offsetof(HOSTVAR, hostField1) == 4, "host ABI");
static_assert(offsetof(HOSTVAR, addressText) == 8, "host ABI");
static_assert(offsetof(HOSTVAR, tagName) == 8 + sizeof(void*), "host ABI");
static_assert(offsetof(HOSTVAR, count) == 8 + 2 * sizeof(void*), "host ABI");
static_assert(sizeof(HOSTVAR) == 8 + 3 * sizeof(void*), "host ABI");

} // namespace
