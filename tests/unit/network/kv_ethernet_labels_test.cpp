#include "network/kv_ethernet_labels.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "network/kv_host_link.h"

namespace {

/** Entries e0, e1, ... with these labels. */
std::string entries(const std::string& labels) {
    std::istringstream words(labels);
    std::string text;
    int index = 0;
    for (std::string label; words >> label; ++index) {
        text += "e" + std::to_string(index) + ":" + std::to_string(index) + ":" + label + ";";
    }
    return text;
}

std::string hostLinkOf(const std::string& translation) {
    std::istringstream stream(translation);
    return hostLinkInterface(stream);
}

TEST(OnboardPorts, BearTheNamesOfTheirTarget) {
    const struct {
        kv_TargetType type;
        const char* labels;
        const char* hostLink;
    } rows[] = {
        {Keystone, "Internal ETH1 NMA ETH2 Hostlink Onboard Onboard", "e4"},
        {Keystone_TopLayer, "Internal Hostlink NMA Onboard Onboard Onboard Onboard", "e1"},
        {Olive, "Hostlink ETH1 NMA ETH2 ETH3 Onboard Onboard", "e0"},
        {NonKelvaro, "Onboard Onboard NMA Onboard Onboard Onboard Onboard", ""},
    };
    for (const auto& row : rows) {
        std::string text = entries("Onboard Onboard NMA Onboard Onboard Onboard Onboard");
        nameOnboardPorts(text, row.type);
        EXPECT_EQ(text, entries(row.labels)) << "type " << row.type;
        EXPECT_EQ(hostLinkOf(text), row.hostLink) << "type " << row.type;
    }
    std::string text = entries("NMB Onboard");
    nameOnboardPorts(text, Fir);
    EXPECT_EQ(text, entries("NMB Internal")) << "surplus names have no effect";
    EXPECT_EQ(hostLinkOf(text), "");
}

TEST(ModulePorts, AreNumberedByTypeInTheOrderOfTheList) {
    const struct {
        const char* before;
        const char* after;
    } cases[] = {
        {"NMA NMA NMA NMA NMA NMA", "NMA_1A NMA_1B NMA_2A NMA_2B NMA_3A NMA_3B"},
        {"NMA-2 NMA-2 NMA NMA NMA-2 NMA-2", "NMA-2_1A NMA-2_1B NMA_1A NMA_1B NMA-2_2A NMA-2_2B"},
        {"NMB NMD NMB NMH NMH-2 NMD NMH NMH-2", "NMB_1 NMD_1 NMB_2 NMH_1 NMH-2_1 NMD_2 NMH_2 NMH-2_2"},
        {"NMC NMC NMC NMC", "NMC_1Port1 NMC_1Port2 NMC_2Port1 NMC_2Port2"},
        {"NME NME NME NME NME", "NME_1Port1 NME_1Port2 NME_1Port3 NME_1Port4 NME_2Port1"},
        {"NMF NMF NMF NMF NMF NMF NMF NMF",
         "NMF_1Port4 NMF_1Port3 NMF_1Port2 NMF_1Port1 NMF_2Port4 NMF_2Port3 NMF_2Port2 NMF_2Port1"},
        {"NMG NMG Hostlink NMG NMG", "NMG_1Port2 NMG_1Port1 Hostlink NMG_2Port2 NMG_2Port1"},
        {"", ""},
    };
    for (const auto& each : cases) {
        std::string text = entries(each.before);
        numberModulePorts(text);
        EXPECT_EQ(text, entries(each.after));
    }
}

TEST(Replacement, TakesTheFirstOccurrenceOnly) {
    std::string text = "Onboard;Onboard;";
    EXPECT_EQ(replaceInString(text, "Onboard", "ETH1"), 0);
    EXPECT_EQ(text, "ETH1;Onboard;");
    EXPECT_EQ(replaceInString(text, "NMA;", "NMA_1A;"), -1);
    EXPECT_EQ(text, "ETH1;Onboard;");
}

TEST(HostLink, IsTheFirstEntryThatSaysSo) {
    const struct {
        const char* text;
        const char* interface;
    } cases[] = {
        {"end0:-1:Hostlink;e1:0:Hostlink;", "end0"},
        {"e0:0:ETH1;;e1:1:Hostlink", "e1"},  // an empty entry, and no final semicolon
        {"Hostlink;e1 Hostlink;e2:Hostlink;", "e2"},
        {":0:Hostlink;e1:1:Hostlink;", ""},  // an interface without a name
        {"e0:0:hostlink;e1:1:ETH1;", ""},
        {"", ""},
        {";;;", ""},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(hostLinkOf(each.text), each.interface) << each.text;
    }
}

}  // namespace
