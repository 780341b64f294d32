#include "tarnctl/explain/explain_text.h"

#include <nlohmann/json.hpp>
#include <string>

#include "crm/crm_event_source.h"

namespace {

using tarnctl::Compare;
using tarnctl::Explanation;
using tarnctl::ExplanationAsJson;
using tarnctl::ExplanationAsText;
using testing::HasSubstr;
using Json = nlohmann::json;

Explanation Asking(bool asks) {
    Explanation explanation;
    explanation.hasEntry = true;
    explanation.name = "Name";
    explanation.blockRules.emplace_back();
    explanation.blockRules.back().isSent = asks;
    explanation.blockRules.back().reason = asks ? "" : "a reason";
    return explanation;
}

TEST(CompareWithAReport, AgreesWhereTheOutcomeIsWhatTheEntryAsksFor) {
    EXPECT_TRUE(Compare(Asking(true), true, "Name").agrees);
    EXPECT_TRUE(Compare(Asking(false), false, "Name").agrees);
    EXPECT_THAT(Compare(Asking(false), false, "Name").reason, HasSubstr("for the reasons below"));
}

TEST(CompareWithAReport, NamesTheSecurityManagerWhereARuleWasNotAdded) {
    const auto comparison = Compare(Asking(true), false, "Name");
    EXPECT_FALSE(comparison.agrees);
    EXPECT_THAT(comparison.reason, HasSubstr("the security manager refused every rule"));
}

TEST(CompareWithAReport, FindsAnEntryThatHasChanged) {
    EXPECT_THAT(Compare(Asking(false), true, "Name").reason, HasSubstr("has changed since"));
    EXPECT_FALSE(Compare(Asking(false), true, "Name").agrees);
    EXPECT_THAT(Compare(Asking(true), true, "Other").reason, HasSubstr("another event name"));
    EXPECT_THAT(Compare(Explanation(), true, "Name").reason, HasSubstr("has been taken out"));
    EXPECT_FALSE(Compare(Explanation(), false, "").agrees);
}

TEST(ExplanationText, LeavesNoByteThatActsOnATerminal) {
    Explanation explanation = Asking(false);
    explanation.name = "\x1b[31mred";
    const CrmEventSource source(4);
    EXPECT_THAT(ExplanationAsText({explanation, {}, source, "options", 0, nullptr}, false),
                HasSubstr("name \"\\x1B[31mred\""));
}

TEST(ExplanationText, HasColoursOnlyWhereTheyAreWanted) {
    const Explanation explanation = Asking(true);
    const CrmEventSource source(4);
    const tarnctl::ExplainedEvent event = {explanation, {}, source, "options", 0, nullptr};
    EXPECT_THAT(ExplanationAsText(event, true), HasSubstr("\x1b["));
    EXPECT_THAT(ExplanationAsText(event, false), testing::Not(HasSubstr("\x1b[")));
}

TEST(ExplanationJson, KeepsANameThatIsNoTextAsBytes) {
    Explanation explanation = Asking(false);
    explanation.name = "\xff";
    explanation.severity = "low";
    const CrmEventSource source(4);
    const Json document =
        Json::parse(ExplanationAsJson({explanation, {}, source, "options", 3, nullptr}));
    EXPECT_EQ("/w==", document.at("report").at("name").at("base64"));
    EXPECT_EQ(3, document.at("alert").at("further"));
    EXPECT_EQ("a reason", document.at("blocking").at("rules").at(0).at("reason"));
}

}  // namespace
