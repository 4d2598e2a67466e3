// Values of every type of the controller, as another library decodes them, and back.

#include "sparkplug_witness.h"

#include "DataTypes.h"
#include "UserError.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway::sparkplug;
using host::GatewayValue;
using host::Json;
using nlohmann::json;

namespace {

struct Case
{
    const char* type;
    const char* bytes; ///< of the controller, hexadecimal
    int elements;
    quint32 dataType;
    const char* field;
    json expected;
};

GatewayValue valueOf(const Case& each)
{
    GatewayValue value;
    value.name = QStringLiteral("Level");
    value.type = &cipTypeNamed(each.type);
    value.bytes = QByteArray::fromHex(each.bytes);
    value.value = each.type == std::string("LREAL") ? Json(each.expected) : Json(1);
    value.quality = host::Quality::Good;
    return value;
}

json decodedMetric(const WireValue& value)
{
    Metric metric;
    metric.name = "Level";
    metric.value = value;
    Payload payload;
    payload.metrics = {metric};
    return SparkplugWitness::instance().decode(encoded(payload).toStdString()).at("metrics").at(0);
}

void expectCase(const Case& each)
{
    SCOPED_TRACE(std::string(each.type) + " " + each.bytes);
    const DataType type = dataTypeOf(cipTypeNamed(each.type), false, each.elements);
    EXPECT_EQ(static_cast<quint32>(type), each.dataType);
    const json metric = decodedMetric(wireValueOf(valueOf(each), type));
    ASSERT_TRUE(metric.contains(each.field)) << metric;
    EXPECT_EQ(metric.at(each.field), each.expected);
    EXPECT_EQ(metric.size(), 2U) << "only the name and the value";
}

/// What an order of this metric, as another library encodes it, tells to write.
QVector<Json> ordered(json metric, const char* cipType, int elements = 1, bool isScaled = false)
{
    metric["name"] = "Level";
    const std::string bytes = SparkplugWitness::instance().encode({{"metrics", {metric}}});
    const auto payload = decoded(QByteArray::fromStdString(bytes));
    if (!payload || payload->metrics.size() != 1)
        throw std::runtime_error("not decoded");
    const CipType& type = cipTypeNamed(cipType);
    return orderedValues(payload->metrics.first(), dataTypeOf(type, isScaled, elements), type,
                         elements);
}

std::string orderedText(const json& metric, const char* cipType, int elements = 1,
                        bool isScaled = false)
{
    std::string text;
    try {
        for (const Json& value : ordered(metric, cipType, elements, isScaled))
            text += (text.empty() ? "" : " ") + value.dump();
    } catch (const UserError& error) {
        return std::string("refused: ") + error.what();
    }
    return text;
}

} // namespace

TEST(DataTypes, CarryIntegersToTheLastBit)
{
    const Case cases[] = {
        {"SINT", "ff", 1, 1, "int_value", 4294967295U},
        {"SINT", "80", 1, 1, "int_value", 4294967168U},
        {"INT", "0080", 1, 2, "int_value", 4294934528U},
        {"INT", "ff7f", 1, 2, "int_value", 32767},
        {"DINT", "ffffff7f", 1, 3, "int_value", 2147483647},
        {"DINT", "00000080", 1, 3, "int_value", 2147483648U},
        {"LINT", "0000000000000080", 1, 4, "long_value", "9223372036854775808"},
        {"LINT", "feffffffffffffff", 1, 4, "long_value", "18446744073709551614"},
        {"USINT", "ff", 1, 5, "int_value", 255},
        {"UINT", "ffff", 1, 6, "int_value", 65535},
        {"UDINT", "ffffffff", 1, 7, "int_value", 4294967295U},
        {"ULINT", "ffffffffffffffff", 1, 8, "long_value", "18446744073709551615"},
    };
    for (const Case& each : cases)
        expectCase(each);
}

TEST(DataTypes, CarryEveryOtherTypeOfTheController)
{
    const Case cases[] = {
        {"BOOL", "00", 1, 11, "boolean_value", false},
        {"BOOL", "01", 1, 11, "boolean_value", true},
        {"BYTE", "a5", 1, 5, "int_value", 165},
        {"WORD", "0180", 1, 6, "int_value", 32769},
        {"DWORD", "010000f0", 1, 7, "int_value", 4026531841U},
        {"LWORD", "01000000000000f0", 1, 8, "long_value", "17293822569102704641"},
        {"REAL", "0000c841", 1, 9, "float_value", 25.0},
        {"LREAL", "000000000000f83f", 1, 10, "double_value", 1.5},
        {"STIME", "ffffffff", 1, 3, "int_value", 4294967295U},
        {"FTIME", "01000000", 1, 3, "int_value", 1},
        {"TIME", "e8030000", 1, 3, "int_value", 1000},
        {"ITIME", "e803", 1, 2, "int_value", 1000},
        {"LTIME", "e803000000000000", 1, 4, "long_value", "1000"},
        {"TIME_OF_DAY", "401f0000", 1, 7, "int_value", 8000},
        // 1972-01-02, and a second later.
        {"DATE", "0100", 1, 13, "long_value", "63158400000"},
        {"DATE_AND_TIME", "e803000001000000", 1, 13, "long_value", "63158401000"},
        {"STRING", "040061e90062", 1, 12, "string_value", std::string("a\u00e9\0b", 5)},
        {"SHORT_STRING", "0161", 1, 12, "string_value", "a"},
        {"SHORT_STRING", "00", 1, 12, "string_value", ""},
    };
    for (const Case& each : cases)
        expectCase(each);
}

TEST(DataTypes, CarryRealNumbersThatAreNotFinite)
{
    expectCase({"REAL", "0000c07f", 1, 9, "float_value", "NaN"});
    expectCase({"REAL", "0000807f", 1, 9, "float_value", "Infinity"});
    expectCase({"REAL", "000080ff", 1, 9, "float_value", "-Infinity"});
    GatewayValue value = valueOf({"LREAL", "000000000000f87f", 1, 10, "", ""});
    value.value = "nan";
    EXPECT_EQ(decodedMetric(wireValueOf(value, DataType::Double)).at("double_value"), "NaN");
    value.value = "-inf";
    EXPECT_EQ(decodedMetric(wireValueOf(value, DataType::Double)).at("double_value"), "-Infinity");
}

TEST(DataTypes, PackSeveralElementsIntoAnArray)
{
    // The bytes in Base64: those of the controller where nothing is said.
    const Case cases[] = {
        {"SINT", "01ff", 2, 22, "bytes_value", "Af8="},
        {"INT", "01000080", 2, 23, "bytes_value", "AQAAgA=="},
        {"DINT", "01000000ffffffff", 2, 24, "bytes_value", "AQAAAP////8="},
        {"LINT", "0100000000000000ffffffffffffffff", 2, 25, "bytes_value",
         "AQAAAAAAAAD//////////w=="},
        {"BYTE", "01ff", 2, 26, "bytes_value", "Af8="},
        {"UINT", "0100ffff", 2, 27, "bytes_value", "AQD//w=="},
        {"UDINT", "01000000ffffffff", 2, 28, "bytes_value", "AQAAAP////8="},
        {"ULINT", "0100000000000000ffffffffffffffff", 2, 29, "bytes_value",
         "AQAAAAAAAAD//////////w=="},
        {"REAL", "0000c8410000c07f", 2, 30, "bytes_value", "AADIQQAAwH8="},
        // 12 as four bytes, then 0011 0100 1101 and four unused bits: the example of the standard.
        {"BOOL", "000001010001000001010001", 12, 32, "bytes_value", "DAAAADTQ"},
        // 63158400000 and 63072000000 as eight bytes each.
        {"DATE", "01000000", 2, 34, "bytes_value", "ALSItA4AAAAAWGKvDgAAAA=="},
    };
    for (const Case& each : cases)
        expectCase(each);
}

TEST(DataTypes, CarryAScaledVariableAsARealNumber)
{
    GatewayValue value = valueOf({"INT", "1900", 1, 0, "", ""});
    value.value = 2.5;
    const DataType type = dataTypeOf(*value.type, true, 1);
    EXPECT_EQ(static_cast<quint32>(type), 10U);
    EXPECT_EQ(decodedMetric(wireValueOf(value, type)).at("double_value"), 2.5);

    value.value = Json::array({2.5, -1.0});
    value.bytes = QByteArray::fromHex("1900f6ff");
    const DataType array = dataTypeOf(*value.type, true, 2);
    EXPECT_EQ(static_cast<quint32>(array), 31U);
    // 2.5 and -1 as eight bytes each
    EXPECT_EQ(decodedMetric(wireValueOf(value, array)).at("bytes_value"),
              "AAAAAAAABEAAAAAAAADwvw==");
    // A text has no scale.
    EXPECT_EQ(dataTypeOf(cipTypeNamed("STRING"), true, 1), DataType::String);
}

TEST(DataTypes, HaveNoValueBeforeTheFirstOne)
{
    GatewayValue value;
    EXPECT_TRUE(std::holds_alternative<std::monostate>(wireValueOf(value, DataType::Int16)));
    value.type = &cipTypeNamed("INT");
    EXPECT_TRUE(std::holds_alternative<std::monostate>(wireValueOf(value, DataType::Int16)));
}

TEST(OrderedValues, AreExactWithinTheirType)
{
    EXPECT_EQ(orderedText({{"int_value", 4294967295U}}, "SINT"), "-1");
    EXPECT_EQ(orderedText({{"int_value", 4294967168U}, {"datatype", 1}}, "SINT"), "-128");
    EXPECT_EQ(orderedText({{"int_value", 4294934528U}}, "INT"), "-32768");
    EXPECT_EQ(orderedText({{"int_value", 2147483648U}}, "DINT"), "-2147483648");
    EXPECT_EQ(orderedText({{"long_value", "9223372036854775808"}}, "LINT"), "-9223372036854775808");
    EXPECT_EQ(orderedText({{"int_value", 255}}, "USINT"), "255");
    EXPECT_EQ(orderedText({{"int_value", 4294967295U}}, "UDINT"), "4294967295");
    EXPECT_EQ(orderedText({{"long_value", "4294967295"}}, "UDINT"), "4294967295");
    EXPECT_EQ(orderedText({{"long_value", "18446744073709551615"}}, "ULINT"),
              "18446744073709551615");
    EXPECT_EQ(orderedText({{"boolean_value", false}}, "BOOL"), "false");
    EXPECT_EQ(orderedText({{"float_value", 0.1}}, "REAL"), "0.1");
    EXPECT_EQ(orderedText({{"double_value", 0.1}}, "LREAL"), "0.1");
    EXPECT_EQ(orderedText({{"double_value", 2.5}}, "INT", 1, true), "2.5");
    EXPECT_EQ(orderedText({{"string_value", "a\u00e9"}}, "SHORT_STRING"), "\"a\u00e9\"");
    EXPECT_EQ(orderedText({{"long_value", "63158400000"}}, "DATE"), "\"1972-01-02\"");
    EXPECT_EQ(orderedText({{"long_value", "63158401250"}}, "DATE_AND_TIME"),
              "\"1972-01-02T00:00:01.250\"");
}

TEST(OrderedValues, OutsideOfTheirTypeAreRefused)
{
    const std::string outside = "refused: the value is outside of its type ";
    EXPECT_EQ(orderedText({{"int_value", 128}}, "SINT"), outside + "Int8");
    EXPECT_EQ(orderedText({{"int_value", 255}}, "SINT"), outside + "Int8");
    EXPECT_EQ(orderedText({{"int_value", 4294967167U}}, "SINT"), outside + "Int8");
    EXPECT_EQ(orderedText({{"int_value", 65535}}, "INT"), outside + "Int16");
    EXPECT_EQ(orderedText({{"int_value", 256}}, "USINT"), outside + "UInt8");
    EXPECT_EQ(orderedText({{"int_value", 65536}}, "UINT"), outside + "UInt16");
    EXPECT_EQ(orderedText({{"long_value", "4294967296"}}, "UDINT"), outside + "UInt32");
    EXPECT_EQ(orderedText({{"long_value", "63072000001"}}, "DATE"), outside + "DateTime");
    EXPECT_EQ(orderedText({{"long_value", "63071999999"}}, "DATE_AND_TIME"), outside + "DateTime");
    // The day after 65535 days, and a number that counts as negative.
    EXPECT_EQ(orderedText({{"long_value", "5725382400000"}}, "DATE"), outside + "DateTime");
    EXPECT_EQ(orderedText({{"long_value", "18446744073709551615"}}, "DATE_AND_TIME"),
              outside + "DateTime");
    EXPECT_EQ(orderedText({{"float_value", "NaN"}}, "REAL"),
              "refused: the value is no finite number");
    EXPECT_EQ(orderedText({{"double_value", "Infinity"}}, "LREAL"),
              "refused: the value is no finite number");
}

TEST(OrderedValues, OfAnotherTypeAreRefused)
{
    const std::string other = "refused: the value is not of its type ";
    EXPECT_EQ(orderedText({{"long_value", "1"}}, "INT"), other + "Int16");
    EXPECT_EQ(orderedText({{"float_value", 1.0}}, "INT"), other + "Int16");
    EXPECT_EQ(orderedText({{"int_value", 1}}, "LINT"), other + "Int64");
    EXPECT_EQ(orderedText({{"long_value", "1"}}, "UINT"), other + "UInt16");
    EXPECT_EQ(orderedText({{"int_value", 1}}, "ULINT"), other + "UInt64");
    EXPECT_EQ(orderedText({{"int_value", 1}}, "BOOL"), other + "Boolean");
    EXPECT_EQ(orderedText({{"double_value", 1.0}}, "REAL"), other + "Float");
    EXPECT_EQ(orderedText({{"float_value", 1.0}}, "LREAL"), other + "Double");
    EXPECT_EQ(orderedText({{"int_value", 1}}, "INT", 1, true), other + "Double");
    EXPECT_EQ(orderedText({{"bytes_value", "YQ=="}}, "SHORT_STRING"), other + "String");
    EXPECT_EQ(orderedText({{"int_value", 1}}, "DATE"), other + "DateTime");
    EXPECT_EQ(orderedText({{"dataset_value", json::object()}}, "INT"), other + "Int16");
    EXPECT_EQ(orderedText({{"int_value", 1}, {"datatype", 3}}, "INT"),
              "refused: the value has the data type 3, the metric has 2");
}

TEST(OrderedValues, ThatAreNotThereAreRefused)
{
    EXPECT_EQ(orderedText(json::object(), "INT"), "refused: there is no value to write");
    EXPECT_EQ(orderedText({{"int_value", 1}, {"is_null", true}}, "INT"),
              "refused: there is no value to write");
}

TEST(OrderedValues, OfAnArrayComeElementByElement)
{
    EXPECT_EQ(orderedText({{"bytes_value", "Af8="}}, "SINT", 2), "1 -1");
    EXPECT_EQ(orderedText({{"bytes_value", "AQAAgA=="}}, "INT", 2), "1 -32768");
    EXPECT_EQ(orderedText({{"bytes_value", "AADIQQAAAAA="}}, "REAL", 2), "25.0 0.0");
    EXPECT_EQ(orderedText({{"bytes_value", "AwAAAKA="}}, "BOOL", 3), "true false true");
    EXPECT_EQ(orderedText({{"bytes_value", "AAAAAAAABEAAAAAAAADwvw=="}}, "INT", 2, true),
              "2.5 -1.0");
}

TEST(OrderedValues, OfAnArrayWithAnotherNumberOfElementsAreRefused)
{
    const std::string refused = "refused: the value is not an array of 2 elements";
    EXPECT_EQ(orderedText({{"bytes_value", "AQ=="}}, "SINT", 2), refused);
    EXPECT_EQ(orderedText({{"bytes_value", "AQEB"}}, "SINT", 2), refused);
    EXPECT_EQ(orderedText({{"bytes_value", ""}}, "SINT", 2), refused);
    EXPECT_EQ(orderedText({{"bytes_value", "AwAAAKA="}}, "BOOL", 2), refused);
    EXPECT_EQ(orderedText({{"bytes_value", "AgAA"}}, "BOOL", 2), refused);
    EXPECT_EQ(orderedText({{"int_value", 1}}, "SINT", 2), "refused: the value is not an array");
}

TEST(Payload, IsNothingForBytesThatAreNone)
{
    EXPECT_FALSE(decoded(QByteArray::fromHex("1204ff")));
    EXPECT_FALSE(decoded(QByteArray(kLongestCommand + 1, '\x12')));
    const auto empty = decoded(QByteArray());
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->metrics.isEmpty());
}

TEST(Payload, OfAnotherEncoderIsRead)
{
    const std::string bytes = SparkplugWitness::instance().encode(
        {{"timestamp", "1795352400000"},
         {"seq", "255"},
         {"uuid", "x"},
         {"metrics",
          {{{"alias", "18446744073709551615"}, {"timestamp", "7"}, {"is_historical", true}},
           {{"name", "N\u00e4me"}, {"is_transient", true}, {"metadata", json::object()}}}}});
    const auto payload = decoded(QByteArray::fromStdString(bytes));
    ASSERT_TRUE(payload);
    EXPECT_EQ(payload->timestamp, quint64(1795352400000));
    EXPECT_EQ(payload->seq, quint64(255));
    ASSERT_EQ(payload->metrics.size(), 2);
    EXPECT_EQ(payload->metrics.at(0).alias, ~quint64(0));
    EXPECT_EQ(payload->metrics.at(0).timestamp, quint64(7));
    EXPECT_TRUE(payload->metrics.at(0).isHistorical);
    EXPECT_EQ(payload->metrics.at(1).name, QByteArray("N\xC3\xA4me"));
    EXPECT_FALSE(payload->metrics.at(1).isHistorical);
}
