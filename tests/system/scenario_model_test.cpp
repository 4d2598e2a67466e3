// Runs of the model of the link (tools/model/link.pml), as fault scripts, with the real driver and
// the simulated controller: what the model's driver does wrong without care, the driver does in the
// same transactions.

#include "scenario_fixture.h"

#include <nlohmann/json.hpp>

#include <fstream>

namespace {

using Json = nlohmann::json;

const char kTags[] =
    R"({"name": "A", "type": "INT", "value": 4369}, {"name": "W", "type": "INT", "value": 3})";
const char kTagB[] = R"(, {"name": "B", "type": "INT", "value": 8738})";

class ModelRun : public ScenarioTest, public ::testing::WithParamInterface<const char*>
{
protected:
    ModelRun()
    {
        std::ifstream file(std::string(MODEL_RUNS) + "/" + GetParam() + ".json");
        run = Json::parse(file);
        for (const char* tag : {"A", "B", "W"})
            declareIndexed(tag);
        defineTags(std::string(kTags) + kTagB);
        confirm("W", 3, 0x00C3);
        pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
        faults(rules());
    }
    std::string rules() const
    {
        std::string text;
        for (const Json& rule : run["faults"])
            text += (text.empty() ? "" : ", ") + rule.dump();
        return text;
    }
    static std::string own(const std::string& tag) { return tag == "A" ? "11 11" : "22 22"; }
    /// "read A" of "4 read A x1".
    static std::string nameOf(const std::string& request)
    {
        const std::string name = request.substr(request.find(' ') + 1);
        return name.substr(0, name.find(" x"));
    }

    void prepare(const Json& step)
    {
        if (step.contains("hasB"))
            defineTags(std::string(kTags) + (step["hasB"].get<bool>() ? kTagB : ""));
        if (step.contains("powerCycle"))
            controller.powerCycle(true);
        if (step.contains("write"))
            write("W", wire::hex("07 00"));
    }
    void compare(const Json& step)
    {
        EXPECT_EQ(nameOf(exchanges.back().request), step["request"].get<std::string>());
        if (step.contains("stored")) {
            EXPECT_EQ(exchanges.back().retValue, 1) << "it counts as a good reply";
            const Json& value = step["stored"]["valueOf"];
            const std::string tag = step["stored"]["tag"].get<std::string>();
            if (!value.is_null()) {
                EXPECT_EQ(shown(tag.c_str()), own(value.get<std::string>()));
            }
        }
        if (step.contains("dropped")) {
            EXPECT_FALSE(getHandshakeInformation(1)) << "the connection is given up";
        }
        const std::string reported = step.value("reported", std::string("nothing yet"));
        if (reported == "done") {
            EXPECT_EQ(finished.empty() ? 0 : finished.back().status, 1);
        } else if (reported == "nothing") {
            EXPECT_TRUE(finished.empty() && PLC_driver.writeList.isEmpty());
        }
        wasExecuted = wasExecuted || step.contains("executed");
        EXPECT_EQ(inController("W"), wasExecuted ? "07 00" : "03 00");
    }

    Json run;
    bool wasExecuted = false;
};

TEST_P(ModelRun, ShowsWithTheDriverWhatItShowsInTheModel)
{
    int number = 0;
    for (const Json& step : run["steps"]) {
        SCOPED_TRACE(run["about"].get<std::string>() + ", transaction " + std::to_string(++number));
        prepare(step);
        ASSERT_TRUE(transact());
        compare(step);
    }
}

INSTANTIATE_TEST_SUITE_P(Bare, ModelRun,
                         ::testing::Values("bare-damaged", "bare-download", "bare-error",
                                           "bare-lost", "bare-not-done", "bare-overtaken",
                                           "bare-set-up", "bare-vanishes"),
                         [](const auto& each) {
                             std::string name = each.param;
                             for (char& c : name)
                                 c = c == '-' ? '_' : c;
                             return name;
                         });

} // namespace
