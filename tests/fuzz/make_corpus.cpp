// make_corpus DIRECTORY: builds the seeds of every harness from good and bad sessions and writes
// them to DIRECTORY/<harness>/<name>.

#include "controller_steps.h"
#include "session_steps.h"
#include "wire.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

using namespace session;
using wire::hex;
using wire::little;

std::filesystem::path root;

void save(const char* harness, const char* name, const QByteArray& bytes)
{
    std::filesystem::create_directories(root / harness);
    std::ofstream file(root / harness / name, std::ios::binary);
    file.write(bytes.constData(), bytes.size());
    file.close();
    if (!file) {
        std::fprintf(stderr, "make_corpus: %s: cannot be written\n",
                     (root / harness / name).c_str());
        std::exit(1);
    }
}

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray all;
    for (int value : values)
        all.append(static_cast<char>(value));
    return all;
}

QByteArray block(const QByteArray& content)
{
    return bytes({content.size()}) + content;
}

// ---- Sessions

enum Name { kSpeed, kLevel, kT, kText, kLongTotal, kFlag, kArr };
enum Type { kBool = 0, kSint = 1, kInt = 2, kDint = 3, kLint = 4, kReal = 9, kShortString = 25 };
const int kIdentity = 0;
const int kForwardOpen = 1;
const int kWriteReply = 2;
const int kErrorReply = 3;
const int kReadReply = 4;

QByteArray begin(int retryLimit, bool multiStation)
{
    return bytes({retryLimit, multiStation, 0, 0});
}

QByteArray declareAll()
{
    return bytes({kPassNames, 0x7F, 1});
}

QByteArray reply(int kind)
{
    return bytes({kGoodReply, 0, 1, kind});
}

QByteArray readReply(int type, const QByteArray& value)
{
    return reply(kReadReply) + bytes({1, type}) + block(value);
}

QByteArray poll()
{
    return bytes({kPoll});
}

QByteArray connect()
{
    return poll() + reply(kIdentity) + poll() + reply(kForwardOpen);
}

QByteArray cyclic(int name, int element, int count)
{
    return bytes({kRebuildCyclic, 1, 5, name, element, count});
}

QByteArray get(int name, int element, int station, int count)
{
    return bytes({kGetValue, name, element, station, count, 0});
}

QByteArray set(int name, int element, int station, const QByteArray& value, int count)
{
    return bytes({kSetValue, name, 1, element, station}) + block(value) + bytes({count, 3});
}

// type kind 1 to 13, index, flags, name, address, area, station, count
QByteArray request(int name, int flags, int station, int count)
{
    return bytes({3, 1, flags, name, 0, 1, station, count});
}

QByteArray readOf(int name, int type, const QByteArray& value, int count)
{
    return begin(2, true) + declareAll() + cyclic(name, 0, count) + connect() + poll() +
           readReply(type, value) + poll() + readReply(type, value) + get(name, 0, 1, count);
}

void saveReads()
{
    save("session", "read_bool", readOf(kFlag, kBool, hex("01"), 1));
    save("session", "read_sint", readOf(kT, kSint, hex("7F"), 1));
    save("session", "read_int", readOf(kSpeed, kInt, hex("D2 04"), 1));
    save("session", "read_dint", readOf(kLevel, kDint, hex("D2 04 00 10"), 2));
    save("session", "read_lint", readOf(kLongTotal, kLint, hex("01 02 03 04 05 06 07 08"), 4));
    save("session", "read_real", readOf(kLevel, kReal, hex("00 00 80 3F"), 2));
    save("session", "read_string", readOf(kText, kShortString, hex("03 41 42 43"), 4));
    save("session", "read_array",
         begin(2, true) + declareAll() + cyclic(kArr, 3, 40) + connect() + poll() +
             readReply(kInt, hex("01 00")) + poll() + readReply(kInt, QByteArray(30, '\x10')) +
             poll() + readReply(kInt, QByteArray(20, '\x02')) + get(kArr, 5, 1, 4));
}

void saveWrites()
{
    const QByteArray write = set(kSpeed, 0, 1, hex("D2 04"), 1);
    save("session", "write_learns_the_type",
         begin(2, true) + declareAll() + write + connect() + poll() +
             readReply(kInt, hex("00 00")) + poll() + reply(kWriteReply) + poll());
    QByteArray burst = begin(2, false) + declareAll() + cyclic(kSpeed, 0, 1) + connect();
    for (int element = 0; element < 7; ++element)
        burst += set(kSpeed, element, 1, hex("10 10"), 1);
    for (int turn = 0; turn < 9; ++turn)
        burst += poll() + readReply(kInt, hex("00 00")) + poll() + reply(kWriteReply);
    save("session", "write_burst", burst);
    save("session", "write_queued_twice",
         begin(2, true) + declareAll() + write + write + write + bytes({kAddWrite}) +
             request(kLevel, 17, 1, 2) + block(hex("01 02 03 04")) + bytes({0}) + connect() +
             poll());
}

void saveOneShots()
{
    const QByteArray once = bytes({kAddOnce}) + request(kSpeed, 8, 1, 1);
    save("session", "one_shot_reads",
         begin(2, true) + declareAll() + once + bytes({0}) + once + bytes({1}) + connect() +
             poll() + readReply(kInt, hex("D2 04")) + poll() + readReply(kInt, hex("D3 04")) +
             poll());
    save("session", "read_list_by_hand",
         begin(1, true) + bytes({kAddRead}) + request(kLevel, 4, 2, 1) + bytes({1}) + connect() +
             poll() + readReply(kDint, hex("01 02 03 04")) + get(kLevel, 0, 2, 2));
}

void saveFailures()
{
    const QByteArray silent = bytes({kNoReply});
    save("session", "no_answer_to_the_identity",
         begin(2, true) + cyclic(kSpeed, 0, 1) + poll() + silent + poll() + silent + poll());
    save("session", "no_answer_to_the_connection_request",
         begin(2, true) + cyclic(kSpeed, 0, 1) + poll() + reply(kIdentity) + poll() + silent +
             silent + silent + silent + poll());
    QByteArray lost = begin(1, false) + declareAll() + cyclic(kSpeed, 0, 1) + connect();
    lost += set(kSpeed, 0, 1, hex("01 00"), 1) + poll();
    for (int i = 0; i < 36; ++i)
        lost += silent;
    save("session", "lost_replies_up_to_the_limit", lost + poll());
    save("session", "error_replies",
         begin(2, true) + declareAll() + cyclic(kSpeed, 0, 1) + connect() + poll() +
             reply(kErrorReply) + bytes({5}) + poll() + reply(kErrorReply) + bytes({0xFF}));
    save("session", "bent_replies",
         begin(2, true) + cyclic(kSpeed, 0, 1) + connect() + poll() +
             bytes({kBentReply, 0, 1, kReadReply, 1, kInt}) + block(hex("01 00")) +
             bytes({0, 3, 9, 0}) + poll());
    save("session", "stations_disabled",
         begin(2, true) + bytes({kEnableStation, 1, 0}) + cyclic(kSpeed, 0, 1) + poll() +
             set(kSpeed, 0, 1, hex("01 00"), 1) + poll() + bytes({kEnableStation, 1, 1}) + poll());
    save("session", "settings_taken_away",
         begin(2, true) + cyclic(kSpeed, 0, 1) + poll() + bytes({kForgetSettings, 1}) + poll() +
             silent + set(kSpeed, 0, 1, hex("01 00"), 1) + bytes({kForgetSettings, 0}) + poll());
    save("session", "remote_link",
         begin(2, true) + bytes({kSettings, kLocalLink, 0xF0}) + bytes({kAddOnce}) +
             request(kSpeed, 0xF0, 1, 1) + bytes({0, 1}) + connect() + poll() +
             readReply(kInt, hex("01 00")) + poll());
}

void saveRawSession()
{
    const QByteArray golden[] = {wire::identityReply(0), wire::forwardOpenReply(1, hex("5A 3C")),
                                 wire::readReply(2, 0xC3, hex("D2 04"))};
    QByteArray steps = begin(2, true) + declareAll() + cyclic(kSpeed, 0, 1);
    for (const QByteArray& frame : golden)
        steps += poll() + bytes({kRawReply}) + block(frame) + bytes({1});
    steps += bytes({kRawReply}) + block(golden[2]) + bytes({1});
    save("session", "raw_golden_replies", steps + get(kSpeed, 0, 1, 1));
}

// ---- The other harnesses

void saveFrames()
{
    save("integrity", "identity_request", wire::framed(wire::identityRequest(1)));
    save("integrity", "forward_open_request", wire::framed(wire::forwardOpenRequest(2, 0xC61623)));
    save("integrity", "identity_reply", wire::identityReply(1));
    save("integrity", "forward_open_reply", wire::forwardOpenReply(0x1010, hex("10 10")));
    save("integrity", "read_reply", wire::readReply(3, 0xC3, hex("D2 04")));
    save("integrity", "read_reply_of_dles", wire::readReply(0x1010, 0xC3, QByteArray(30, '\x10')));
    save("integrity", "write_reply", wire::writeReply(4));
    const QByteArray whole = wire::readReply(4, 0xC3, hex("D2 04"));
    save("integrity", "ends_within_its_crc", whole.left(whole.size() - 1));
    save("integrity", "ends_before_its_crc", whole.left(whole.size() - 2));
    save("integrity", "shortest", wire::framed(QByteArray(16, '\0')));
    save("integrity", "false_ends", wire::readReply(5, 0xC2, hex("10 03 00 00 10 03 01 02")));
    save("integrity", "bare",
         hex("10 02 00 01 0A 00 48 00 00 00 76 61 4F 45 52 06 91 10 03 01 02"));
    save("integrity", "two_frames", wire::writeReply(1) + wire::writeReply(2));
}

QByteArray setUp(int station, int counter)
{
    return bytes({0, 0, station}) + little(static_cast<quint64>(counter), 2) + hex("00 00");
}

void saveSetUps()
{
    const QByteArray identity = bytes({0, 1, 0, 61});
    const QByteArray opened = bytes({1, 1, 0}) + hex("5A 3C") + bytes({46});
    const QByteArray nothing = bytes({3, 0});
    save("handshake", "clean", setUp(1, 1) + identity + opened);
    save("handshake", "counter_wraps", setUp(1, 0xFFFF) + identity + opened);
    save("handshake", "dle_counter", setUp(2, 0x1010) + identity + opened);
    save("handshake", "resends", setUp(1, 1) + identity + nothing + nothing + nothing + opened);
    save("handshake", "gives_up",
         setUp(1, 1) + identity + nothing + nothing + nothing + nothing + identity + opened);
    save("handshake", "raw_reply",
         setUp(1, 1) + bytes({2}) + block(wire::identityReply(1)) + bytes({61, 2}) +
             block(wire::forwardOpenReply(2, hex("10 10"))) + bytes({46}));
    save("handshake", "null_and_short", setUp(1, 1) + bytes({4, 0, 5, 0, 0, 20, 1}) + identity);
    const QByteArray stray = block(wire::forwardOpenRequest(1, 2));
    save("handshake", "out_of_order",
         bytes({1, 1, 5, 2, 1}) + stray + bytes({0, 0, 1}) + stray + bytes({0, 0, 1}) +
             block(wire::forwardOpenReply(1, hex("5A 3C"))) + bytes({1}));
}

// station draw (2), connected, counter, identifier, name, confirmed class and type, value
QByteArray stored(int typeClass, const QByteArray& value)
{
    return bytes({0, 1, 1, 1}) + hex("21 00") + bytes({2}) + hex("5A 3C") +
           bytes({1, 1, typeClass}) + hex("C3 00") + bytes({1, 1, 1}) + block(value);
}

void saveValues()
{
    const QByteArray start = bytes({1, 1, 1, 0});
    const QByteArray declare = bytes({1, 1, 1, 1, 1});
    const QByteArray get = bytes({2, 1, 0, 0, 1, 1, 2, 0});
    const char* const names[] = {"get_bool", "get_string", "get_sint",   "get_int",
                                 "get_dint", "get_lint",   "get_unknown"};
    for (int typeClass = 0; typeClass <= 6; ++typeClass) {
        save("values", names[typeClass],
             start + declare + stored(typeClass, hex("01 02 03 04 05 06 07 08 09")) + get);
    }
    save("values", "set",
         start + declare + bytes({4, 1}) + block(hex("01 02")) + bytes({1, 1, 0, 0, 3, 1, 1, 1}));
    const QByteArray request =
        bytes({1, 1, 0, 1, 0, 0, 1, 1, 3, 1, 1, 2, 2, 0}) + block(hex("0102"));
    save("values", "lists", start + declare + bytes({5}) + request + bytes({1, 0, 0}));
    save("values", "encode_read", start + stored(3, hex("01 02")) + bytes({6}) + request);
    save("values", "encode_write", start + stored(4, hex("01 02")) + bytes({7}) + request);
    save("values", "cut_run",
         start + bytes({8}) + request + bytes({1, 15, 1, 3}) + request + request + request);
    save("values", "classify", start + bytes({9, 2}) + hex("A3 C4"));
}

// ---- The programs

void saveText(const char* harness, const char* name, const char* text)
{
    save(harness, name, QByteArray(text));
}

void saveProjects()
{
    saveText("project", "least", R"({"variables": [{"tag": "Speed"}]})");
    saveText("project", "port", R"({"port": {"device": "/dev/ttyS1", "baud": 9600, "dataBits": 8,
"parity": "even", "stopBits": 2, "deviceBudgetMs": 300, "timeoutMs": 900, "retryLimit": 5},
"staleAfterMs": 1500, "variables": [{"tag": "Speed", "type": "INT"}]})");
    saveText("project", "device_server",
             R"({"port": {"device": "tcp://[::1]:2000"}, "variables": [{"tag": "A"}]})");
    saveText("project", "bad_device_server",
             R"({"port": {"device": "rfc2217://plc"}, "variables": [{"tag": "A"}]})");
    saveText("project", "stations", R"({ // two of them
"stations": [{"number": 3, "name": "filler"}, {"number": 4, "enabled": false}],
"variables": [{"name": "Fill level", "tag": "Level", "station": 4, "type": "REAL", "element": 2,
"length": 5, "area": 7, "poll": "once"}, {"tag": "Level", "station": 3, "poll": "cyclic"}]})");
    saveText("project", "string",
             R"({"variables": [{"tag": "Name", "type": "SHORT_STRING", "element": 0}]})");
    saveText("project", "rates",
             R"({"variables": [{"tag": "Speed", "type": "INT", "intervalMs": 100,
"deadband": 5, "heartbeatMs": 60000}, {"tag": "Level", "gain": -0.1, "offset": 4, "unit": "m",
"minimum": -20.5, "maximum": 80, "deadband": "2.5%"}]})");
    saveText("project", "writable", R"({"variables": [{"tag": "Setpoint", "type": "REAL",
"writable": true, "minimum": 0, "maximum": 80, "writesPerMinute": 10}, {"tag": "Total", "type": "ULINT",
"writable": true, "minimum": 9223372036854775807, "maximum": 18446744073709551615}]})");
    saveText("project", "bad_limits",
             R"({"variables": [{"tag": "A", "minimum": 2, "maximum": 1}]})");
    saveText("project", "no_span", R"({"variables": [{"tag": "A", "deadband": "2%"}]})");
    saveText("project", "text_limit",
             R"({"variables": [{"tag": "A", "type": "SHORT_STRING", "maximum": 1}]})");
    saveText("project", "bad_rates", R"({"variables": [{"tag": "A", "heartbeatMs": 99}]})");
    saveText("project", "once_with_interval",
             R"({"variables": [{"tag": "A", "poll": "once", "intervalMs": 1}]})");
    saveText("project", "not_writable",
             R"({"variables": [{"tag": "A", "type": "LWORD", "writable": true}]})");
    saveText("project", "bad_type", R"({"variables": [{"tag": "Speed", "type": "INTT"}]})");
    saveText("project", "key_twice", R"({"variables": [{"tag": "A", "unit": "m", "tag": "B"}]})");
    save("project", "byte_zero", R"({"variables": [{"tag": "Speed"}]})" + bytes({0}) + "more");
    saveText("project", "hidden", R"({"variables": [{"tag": "A", "name": "\u009b\u202e"}]})");
    saveText("project", "twice", R"({"variables": [{"tag": "Speed"}, {"tag": "Speed"}]})");
    saveText("project", "cut_off", R"({"variables": [{"tag": "Spe)");
}

void saveConfigurations()
{
    const char harness[] = "gateway_configuration"; // has the projects p, q and bad
    saveText(harness, "least", R"({"lines": [{"name": "press", "project": "p"}]})");
    saveText(harness, "all", R"({"$schema": "x", // two lines
"lines": [{"name": "Press-2_a.b", "project": "p"}, {"name": "oven", "project": "./q"}],
"socket": {"path": "/run/g.sock", "mostClients": 10000},
"history": {"file": "../h.sqlite", "keepDays": 1, "keepMegabytes": 1000000}})");
    saveText(harness, "one_device", R"({"lines": [{"name": "a", "project": "p"},
{"name": "b", "project": "p"}]})");
    saveText(harness, "one_name", R"({"lines": [{"name": "a", "project": "p"},
{"name": "a", "project": "q"}]})");
    saveText(harness, "bad_project", R"({"lines": [{"name": "a", "project": "bad"}]})");
    saveText(harness, "no_project", R"({"lines": [{"name": "a", "project": "/dev/zero"}]})");
    saveText(harness, "bad_name", R"({"lines": [{"name": "a/\u009b", "project": "p"}]})");
    saveText(harness, "many_mistakes", R"({"lines": [{"nme": "a"}, {"name": 1, "project": ""}],
"socket": {"path": "", "mostClients": 0}, "history": {"keepDays": 0}, "more": 1})");
    saveText(harness, "own_files", R"({"lines": [{"name": "a", "project": "p"}],
"history": {"file": "p"}, "socket": {"path": "q"}})");
    saveText(harness, "long_socket",
             (R"({"lines": [{"name": "a", "project": "p"}],
"socket": {"path": "/)" +
              std::string(107, 'x') + "\"}}")
                 .c_str());
    saveText(harness, "cut_off", R"({"lines": [{"name": "a", "proj)");
}

void saveTags()
{
    saveText("tags", "numbers", R"({"tags": [{"name": "Speed", "type": "INT", "value": 1234},
{"name": "Total", "type": "LINT", "value": -9007199254740993}, {"name": "Real", "type": "REAL",
"value": 0.1}, {"name": "Bits", "type": "WORD", "value": "0x1234", "readOnly": true}]})");
    saveText("tags", "arrays", R"({"tags": [{"name": "Alarm", "type": "BOOL", "length": 8,
"value": [true, false]}, {"name": "Zone", "type": "DINT", "length": 30, "value": 7}]})");
    saveText("tags", "texts", R"({"tags": [{"name": "A", "type": "SHORT_STRING", "value": "Apple"},
{"name": "B", "type": "STRING"}, {"name": "C", "type": "STRING2", "length": 2}]})");
    saveText("tags", "motions", R"({"tags": [{"name": "R", "type": "INT", "motion":
{"kind": "ramp", "min": -5, "max": 1000, "period": 20}}, {"name": "S", "type": "LREAL", "motion":
{"kind": "sine"}}, {"name": "C", "type": "UDINT", "motion": {"kind": "counter", "period": 0.5}},
{"name": "T", "type": "BOOL", "length": 3, "motion": {"kind": "toggle"}}]})");
    saveText("tags", "bad_motion",
             R"({"tags": [{"name": "R", "type": "REAL", "motion": {"kind": "rmap"}}]})");
    saveText("tags", "bad_value", R"({"tags": [{"name": "R", "type": "INT", "value": 40000}]})");
}

void saveFaults()
{
    saveText("faults", "bytes", R"({"faults": [{"fault": "lose", "rate": 0.1},
{"fault": "flip", "message": [1, 3], "byte": 7, "bit": 3}, {"fault": "double", "message": 2},
{"fault": "insert", "on": "requests", "message": 2, "byte": 1, "bytes": "10 06"},
{"fault": "noise", "rate": 1, "length": 40}]})");
    saveText("faults", "times", R"({"faults": [{"fault": "delay", "rate": 0.5, "seconds": 0.2},
{"fault": "delay", "message": 1, "later": 2}, {"fault": "duplicate", "rate": 0.3},
{"fault": "split", "on": "requests", "message": 3, "seconds": 0.001},
{"fault": "hang-up", "message": 4, "seconds": 1}]})");
    saveText("faults", "answers", R"({"faults": [{"fault": "withhold", "message": 2},
{"fault": "withhold-ack", "rate": 0.2}, {"fault": "nak", "on": "requests", "message": 3},
{"fault": "nak", "message": 1}, {"fault": "previous", "rate": 0.4},
{"fault": "cip-error", "message": [4, 5], "status": 255, "extended": 8453}]})");
    saveText("faults", "unknown", R"({"faults": [{"fault": "loose", "rate": 0.1}]})");
    saveText("faults", "order", "\x01 download plant.tags.json 2");
    saveText("faults", "power_cycle", "\x01power-cycle retain 2");
    saveText("faults", "replay",
             "\x02"
             "1.000000 > 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35\n"
             "1.100000 < 10 06 10 02 01 00 4B 00 01 00 00 00 81 00 00 00 10 03 03 EB\n");
}

void saveTexts()
{
    const char* const values[] = {"1234", "-128", "0xA5", "1.5e-3", "true", "Apple juice"};
    const int types[] = {kInt, kSint, 16, kReal, kBool, kShortString};
    for (int i = 0; i < 6; ++i) {
        const std::string number = std::to_string(i);
        save("text", ("value" + number).c_str(), bytes({0, types[i]}) + values[i]);
        save("text", ("shown" + number).c_str(), bytes({1, types[i]}) + hex("03 41 42 43 00 C0"));
        save("text", ("type" + number).c_str(), bytes({2}) + (i % 2 == 0 ? "LREAL" : "INTT"));
    }
    save("text", "tag", bytes({3, 0}) + "Speed");
    save("text", "element", bytes({3, 0}) + "Level[3]");
    save("text", "range", bytes({3, 0}) + "Level[3..65535]");
    save("text", "write", bytes({3, 1}) + "Level[3]=-12");
    save("text", "write_range", bytes({3, 1}) + "Level[3..4]=1,2");
    for (const char* const text : {"ok\nValveOpen = false", "\x1b]0;x\x07\x7f", "\xC2\x9B\xFF",
                                   "\xE2\x80\xAE\xE2\x80\xA8", "\"\\n", "plain"})
    {
        static int number = 0;
        const std::string name = std::to_string(number++);
        save("text", ("visible" + name).c_str(), bytes({4}) + text);
        save("text", ("string" + name).c_str(),
             bytes({1, kShortString, static_cast<int>(qstrlen(text))}) + text);
        save("text", ("cell" + name).c_str(),
             bytes({5, kShortString, 7, 6}) + "\xE6\xB8\xA9\x65\xCC\x81" + bytes({2}) + "m3" +
                 bytes({static_cast<int>(qstrlen(text))}) + text);
    }
    save("text", "a_percent_sign_and_a_digit", bytes({3, 0}) + "Fill%2[46]");
}

void saveLists()
{
    saveText("list", "headings_in_any_order",
             "Comment,Data Type,NAME,Dimension\r\n"
             "\"a, b\",INT,Speed,\r\n,dint,Recipe,[0..19]\r\n");
    saveText("list", "semicolons", "Name;Data type\nA,B;INT\nTitle;STRING\n");
    saveText("list", "tabs", "\xEF\xBB\xBFTag\tType\tSize\nA\tREAL\t300\n");
    saveText("list", "passed_over",
             "Name,Type,Dimension\nTimer,TON,\nGrid,INT,\"[0..3,0..3]\"\n"
             "Back,INT,9..1\nA,INT,\nA,INT,\nNames,SHORT_STRING,4\n");
    saveText("list", "no_tag", "Name,Type\nFill level,INT\nA[3],INT\n");
    saveText("list", "no_heading", "Speed,INT\n");
}

QByteArray pcapngBlock(int type, const QByteArray& body)
{
    const QByteArray size = little(static_cast<quint64>(body.size() + 12), 4);
    return little(static_cast<quint64>(type), 4) + size + body + size;
}

void saveTraces()
{
    saveText("trace", "text",
             "# time, direction, bytes\n"
             "1234567890.000042 > 10 06 10 02 FF  # read Speed\n\n"
             "1234567891.500000 < 00\r\n1234567892.000000 <\n");
    saveText("trace", "bad_byte", "1.000000 > 1G\n");
    saveText("trace", "bad_time", "1.5 > 10\n");
    const QByteArray section =
        hex("0A 0D 0D 0A 1C 00 00 00 4D 3C 2B 1A 01 00 00 00 FF FF FF FF FF FF FF FF 1C 00 00 00");
    const QByteArray port = pcapngBlock(1, hex("93 00 00 00 00 00 00 00"));
    const QByteArray packet =
        pcapngBlock(6, hex("00 00 00 00 00 F9 05 00 2A 00 00 00 02 00 00 00 02 00 00 00 10 06 00 00"
                           "02 00 04 00 01 00 00 00 00 00 00 00"));
    save("trace", "pcapng", section + port + packet + packet);
    save("trace", "pcapng_cut", (section + port + packet).left(70));
    save("trace", "pcapng_other_order",
         hex("0A 0D 0D 0A 00 00 00 1C 1A 2B 3C 4D 00 01 00 00 FF FF FF FF FF FF FF FF 00 00 00 1C"
             "00 00 00 06 00 00 00 24 00 00 00 00 00 00 00 00 00 00 00 05 00 00 00 02 00 00 00 02"
             "10 06 00 00 00 00 00 24"));
}

void saveReplies()
{
    const auto raw = [](const QByteArray& line) { return bytes({0}) + block(line); };
    save("replies", "identity", raw(wire::identityReply(1)));
    save("replies", "open", raw(wire::forwardOpenReply(2, hex("5A 3C"))));
    save("replies", "read", raw(wire::readReply(3, 0xC3, hex("10 04")) + hex("10 05")));
    save("replies", "write", raw(wire::writeReply(4) + hex("10 15 55")));
    save("replies", "refusals",
         raw(wire::errorReply(5, 0x52, 0x05)) + raw(wire::errorReply(6, 0x53, 0xFF)));
    save("replies", "requests",
         raw(wire::framed(wire::identityRequest(1))) +
             raw(wire::readRequest(2, hex("5A 3C"), wire::tagPath("Level", 300), 2)) +
             raw(wire::writeRequest(3, hex("5A 3C"), wire::tagPath("Level", 3), 0xC3, 1,
                                    hex("01 00"))));
    save("replies", "closed_by_the_harness",
         bytes({1}) + block(hex("00 01 4A 00 03 00 00 00 01 00 01 00 D2 00 00 00 C3 00 10 10")));
    save("replies", "embedded", raw(hex("10 02 00 01 10 06 4A 10 02 00 10 03 00 00")));
}

void saveTelnet()
{
    const QByteArray agreed = hex("FF FD 2C FF FD 00 FF FD 03 FF FB 00 FF FB 03");
    const QByteArray confirmed = hex("FF FA 2C 65 00 00 96 00 FF F0 FF FA 2C 66 08 FF F0 "
                                     "FF FA 2C 67 01 FF F0 FF FA 2C 68 01 FF F0");
    // Whether the session begins, and whether it is ready; the lengths of the pieces.
    const QByteArray start = bytes({0, 1, 0}) + block(bytes({1, 2, 5}));
    const QByteArray ready = bytes({0, 1, 1}) + block(bytes({3, 1}));
    save("telnet", "negotiation", start + agreed + confirmed + hex("10 06 FF FF 0D 00"));
    save("telnet", "server_begins", bytes({0, 0, 0}) + block("") + agreed + confirmed);
    save("telnet", "no_port_option", start + hex("FF FE 2C"));
    save("telnet", "no_binary", start + hex("FF FD 2C FF FE 00 FF FC 00"));
    save("telnet", "other_speed", start + agreed + hex("FF FA 2C 65 00 00 25 80 FF F0"));
    save("telnet", "other_options", start + hex("FF FB 01 FF FD 18 FF FD 1F FF FB 01"));
    save("telnet", "no_telnet", start + "Port already in use\r\n");
    save("telnet", "notices",
         ready + hex("41 FF FA 2C 6A 60 FF F0 42 FF FA 2C 6B B0 FF F0 "
                     "FF FA 2C 6C FF F0 FF FA 2C 6D FF F0 FF F1 43"));
    save("telnet", "changes_its_mind", ready + hex("FF FC 03 FF FB 03 FF FC 03 FF FB 03"));
    save("telnet", "ends_binary", ready + hex("41 FF FC 00 42"));
    save("telnet", "endless", ready + hex("FF FA 2C") + QByteArray(200, 'x') + hex("FF F0 41"));
    save("telnet", "lost_end", ready + hex("FF FA 2C 65 00 FF FB 01 41 FF FA FF FF F0 42"));
    save("telnet", "data", bytes({1}) + block(bytes({2, 3})) + hex("10 02 FF FF 00 0D 0A 10 03"));
    const char* const addresses[] = {"tcp://plc:2000",
                                     "rfc2217://127.0.0.1:1",
                                     "tcp://[fe80::1%eth0]:65535",
                                     "tcp://::1:2",
                                     "udp://plc:1",
                                     "tcp://plc",
                                     "tcp://me@plc:2",
                                     "tcp://plc:2/x",
                                     "tcp://[::1",
                                     "/dev/serial/by-path/0:1"};
    int number = 0;
    for (const char* const address : addresses)
        save("telnet", ("address" + std::to_string(number++)).c_str(), bytes({2}) + address);
}

void saveControllers()
{
    using namespace controller;
    const QByteArray open = bytes({kOpen, 0x23, 1});
    const auto read = [](int name, int index, int count) {
        return bytes({controller::kRead, name, 0, index, count, 1});
    };
    const QByteArray ack = bytes({kRawBytes}) + block(hex("10 06"));
    save("controller", "identity", bytes({kMessage}) + block(wire::identityRequest(1)) + ack);
    save("controller", "reads",
         open + ack + read(0, 3, 6) + ack + read(1, 0, 1) + ack + read(2, 0, 255) + read(3, 1, 1) +
             read(4, 0, 1) + read(7, 0, 1) + read(2, 60, 7));
    save("controller", "writes",
         open + bytes({kWrite, 1, 0, 0, 3, 1, 1}) + block(hex("D2 04")) +
             bytes({kWrite, 3, 0, 1, 0x1A, 1, 1}) + block(hex("03 41 42 43")) +
             bytes({kWrite, 5, 0, 0, 0x0B, 1, 1}) + block(QByteArray(8, '\x10')) +
             bytes({kWrite, 4, 0, 0, 0x15, 1, 1}) + block(hex("01 00 41 00")));
    save("controller", "fragments",
         open + bytes({kConnected, 1, 0, 0}) +
             block(hex("52 03 91 04 5A 6F 6E 65 42 00 E0 01 00 00")) +
             bytes({kConnected, 1, 0, 0}) +
             block(hex("53 03 91 04 5A 6F 6E 65 C5 00 04 00 08 00 00 00 01 02 03 04 05 06 07 08")));
    save("controller", "refusals",
         bytes({kUnconnected, 1}) + block(hex("54 02 20 06 24 01 05")) + bytes({kUnconnected, 1}) +
             block(hex("4E 02 20 06 24 01 05 F7 23 16 C6 02")) + bytes({kConnected, 1, 0, 0}) +
             block(hex("4C 02 91 01 41 00 01 00")));
    save("controller", "link",
         bytes({kRawBytes}) + block(wire::framed(wire::identityRequest(1))) + bytes({kRawBytes}) +
             block(hex("10 15 10 05 10 02 00 10 06 10 10 10 03 00 00 10 15 10 15 10 15")));
    save("controller", "time",
         open + read(6, 0, 1) + bytes({kWait, 0xFF, 0xFF}) + bytes({kWait, 0xFF, 0xFF}) +
             bytes({kWait, 0xFF, 0xFF}) + read(6, 0, 1) + bytes({kPowerCycle, 0}) + read(1, 0, 1));
}

// Requests of a client, and with ! what happens to the gateway; see gateway_protocol_fuzz.cpp.
void saveRequests()
{
    const char harness[] = "gateway_protocol";
    saveText(harness, "list", R"(abcd{"id":1,"request":"list"}
{"id":"x","request":"list","line":"press","match":"L*"}
)");
    saveText(harness, "read", R"(abcd!v0
{"id":1,"request":"read","names":["Speed","Level"]}
{"id":2,"request":"read","names":["Speed"],"fresh":true}
!a{"reply":"read","values":[{"value":5}]}
{"id":3,"request":"read","tag":"X","element":2,"elements":3}
!a{"reply":"read","type":"INT","elements":["0100"]}
{"id":4,"request":"type","tag":"X"}
!a{"error":{"code":"refused","text":"no such tag"}}
)");
    saveText(harness, "subscribe", R"(abcd{"id":1,"request":"subscribe","match":"*e*","ages":true}
!v0
!s
!v0
!v0
!v1
!e
!s
!t
{"id":2,"request":"subscribe","names":["List"]}
!r
!v2
{"id":3,"request":"unsubscribe","subscription":1}
)");
    saveText(harness, "write", R"(abcd{"id":1,"request":"hello","client":"me"}
{"id":2,"request":"write","name":"Speed","value":100}
!a{"reply":"write","outcome":"written","old":1,"value":100,"verified":true}
{"id":3,"request":"write","name":"Speed","value":101}
{"id":4,"request":"write","tag":"LIST","element":11,"bytes":"0500"}
{"id":5,"request":"cancel","of":4}
!a{"error":{"code":"cancelled","text":"taken back"}}
{"id":6,"request":"write","name":"Unknown","value":1.5}
!a{"reply":"type","type":"REAL"}
!a{"reply":"write","outcome":"written","value":2,"verified":false}
{"id":7,"request":"write","name":"Text","value":"\u00e9\""}
)");
    saveText(harness, "others", R"(abcd{"id":1,"request":"status"}
{"id":2,"request":"history","name":"S*","from":"2026-11-22T13:30:00.125Z","limit":5}
!h
{"id":3,"request":"reload"}
{"id":4,"request":"lst"}
[1]
{"id":5
)");
    saveText(harness, "value", R"(!val{"line":"press","name":"Speed","station":1,"tag":"SPEED",
"element":0,"type":"INT","value":5,"bytes":"0500","quality":"good",
"time":"2026-11-22T13:30:00.125Z","unit":"rpm"})");
}

// Commands for a device, in hexadecimal as another library encoded them, and states of a host; see
// sparkplug_fuzz.cpp.
void saveSparkplug()
{
    const char harness[] = "sparkplug";
    save(harness, "integer", "d" + hex("0880a1de9aa034120f0a054c6576656c200250ffffffff0f"));
    save(harness, "several",
         "d" + hex("12080a0442797465500512090a05546f74616c5807120b0a0448656174650000003f12070a03527"
                   "56e7001"));
    save(harness, "text", "d" + hex("120b0a04546578747a03616263120c0a034461795880e8a2a4eb01"));
    save(harness, "array",
         "d" + hex("120f0a044c69737482010601000200030012100a05466c61677382010609000000a080"));
    save(harness, "null", "d" + hex("12090a054c6576656c3801"));
    save(harness, "late", "d" + hex("080112090a054c6576656c5005"));
    save(harness, "alias",
         "d" + hex("121a108fadf7d3951a2801300142004a090a016112040803180150051803220178"));
    save(harness, "dataset",
         "d" + hex("120a0a054c6576656c8a0100120f0a044279746569000000000000f83f"));
    save(harness, "online", R"(s{"online":true,"timestamp":2000})");
    save(harness, "offline", R"(s{"online":false,"timestamp":1000,"more":[1]})");
    save(harness, "outdated", R"(s{"online":false,"timestamp":999})");
}

// What peers of a broker order; see orders_fuzz.cpp.
void saveOrders()
{
    const char harness[] = "orders";
    save(harness, "number", "0Level\n 42.5\n");
    save(harness, "text", "0Text\n\"a\\u00e4\"");
    save(harness, "bare", "0Text\n 42 ");
    save(harness, "element", R"(0List
{"value": 1.5, "element": 19, "id": "o-1"})");
    save(harness, "which", "0List\n78");
    save(harness, "timed", R"(8Level
{"value": 18446744073709551615, "id": 7, "time": "2026-11-22T13:00:00.000Z"})");
    save(harness, "seconds", R"(8Level
{"value": true, "id": 7, "time": "2026-11-22T12:59:59Z"})");
    save(harness, "late", R"(8Level
{"value": null, "id": [], "time": 1795352300000})");
    save(harness, "retained", "1Level\n1");
    save(harness, "forgotten", "1Level\n");
    save(harness, "expired", "6Level\n1");
    save(harness, "escaped", "2a%2Fb\n{\"value\":-0}");
    save(harness, "topic", "0p/press/1/a/b/set\n1");
    save(harness, "others", "0q/press/1/Level/set\n1");
    save(harness, "missing", "0p/press/2/Level/set\n1");
    save(harness, "wrong", "0Level\n{\"value\": 1, \"valu\": \"\xff\"}");
}

// Requests of a client of the web server; see http_fuzz.cpp.
void saveHttp()
{
    const char harness[] = "http";
    const QByteArray rest = " HTTP/1.1\r\nHost: a\r\n\r\n";
    save(harness, "get", "\xffGET /api/v1/values?line=press&match=a%20b" + rest);
    save(harness, "bytes", "\x01GET /abc" + rest);
    save(harness, "stream", "\xffGET /abcd" + rest);
    save(harness, "later", "\xffGET /a" + rest);
    save(harness, "three", "\x40GET /a" + rest + "GET /abcd" + rest + "HEAD /ab" + rest);
    save(harness, "put", "\x20PUT /x HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\nhello");
    save(harness, "expect",
         "\xffPUT /x HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n"
         "Expect: 100-continue\r\n\r\nhello");
    save(harness, "chunks",
         "\x30POST /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
         "5\r\nhello\r\n1;e=1\r\n!\r\n0\r\nT: x\r\n\r\n");
    save(harness, "both",
         "\xffPUT /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n"
         "Content-Length: 5\r\n\r\n0\r\n\r\nGET /smuggled" +
             rest);
    save(harness, "long",
         "\xffPUT /x HTTP/1.1\r\nHost: a\r\nContent-Length: 300\r\n\r\n" + QByteArray(300, 'b'));
    save(harness, "headers",
         "\xffGET / HTTP/1.1\r\nHost: a\r\n" + QByteArray("X: y\r\n").repeated(100) + "\r\n");
    save(harness, "old", "\xffGET /abcd HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    save(harness, "proxy",
         "\xffGET http://h/x HTTP/1.1\r\nX-Forwarded-For: ::1, 10.0.0.5\r\n"
         "X-Forwarded-Proto: https\r\nCookie: a=1; b=2\r\n\r\n");
    save(harness, "folded", "\xffGET / HTTP/1.1\r\nHost: a\r\nX: a\r\n b\r\n\tc\r\n\r\n");
    save(harness, "bad", "\xffGET /%zz" + rest);
    save(harness, "binary", "\xff\x16\x03\x01\x02");
    save(harness, "half", "\xffOPTIONS * HTTP/1.1\r\nHos");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_corpus DIRECTORY\n");
        return 2;
    }
    root = argv[1];
    saveFrames();
    saveSetUps();
    saveReads();
    saveWrites();
    saveOneShots();
    saveFailures();
    saveRawSession();
    saveValues();
    saveProjects();
    saveConfigurations();
    saveRequests();
    saveOrders();
    saveSparkplug();
    saveHttp();
    saveTags();
    saveFaults();
    saveTexts();
    saveLists();
    saveTraces();
    saveReplies();
    saveTelnet();
    saveControllers();
    return 0;
}
