#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kvsim/description_reader.h"
#include "support/machine_temporary_folder.h"

namespace {

using kv::test::TemporaryFolder;
using kvsim::readDescription;
using testing::ElementsAre;
using testing::Pair;

TEST(SerialDescription, HasGpioChipsAndTerminals) {
    const TemporaryFolder folder;
    const auto machine = readDescription(folder.write("good.yaml", R"(
summary: x
gpio:
  - {name: gpiochip3, label: bank, lines: {0: A, 0x10: B}}
platform:
  - name: uart
    devices:
      - {class: tty, name: ttyS0, terminal: {far-end: none}}
      - {class: tty, name: ttyS1, terminal: {far-end: capture}}
      - {class: tty, name: ttyS2}
)"));
    ASSERT_EQ(machine.gpioChips.size(), 1U);
    EXPECT_EQ(machine.gpioChips[0].name, "gpiochip3");
    EXPECT_EQ(machine.gpioChips[0].label, "bank");
    EXPECT_THAT(machine.gpioChips[0].lines, ElementsAre(Pair(0, "A"), Pair(16, "B")));
    const auto& ports = machine.platformDevices.at(0).classDevices;
    EXPECT_EQ(ports.at(0).terminal, kvsim::FarEnd::None);
    EXPECT_EQ(ports.at(1).terminal, kvsim::FarEnd::Capture);
    EXPECT_EQ(ports.at(2).terminal, std::nullopt);
}

TEST(SerialDescription, IsRefusedWithPlaceAndReason) {
    const std::string gpio = "summary: x\ngpio:\n  - ";
    const std::string chip = gpio + "{name: gpiochip0, label: x, lines: ";
    const std::string device = "summary: x\nplatform:\n  - {name: p, devices: [{name: d, class: ";
    const std::pair<std::string, std::string> cases[] = {
        {gpio + "{name: gpio0, label: x, lines: {0: A}}",
         "3:5: \"gpio0\" is not a GPIO chip name such as gpiochip0"},
        {chip + "{0: A}}\n  - {name: gpiochip0, label: y, lines: {0: A}}",
         "4:5: there are two GPIO chips named gpiochip0"},
        {chip + "[A]}", "3:40: lines must be a map from offsets to names"},
        {chip + "{}}", "3:5: gpiochip0 has no lines with offsets from 0 to 511"},
        {chip + "{512: A}}", "3:41: the offset of a line: 512 is not in the range 0 to 511"},
        {chip + "{1: A, 0x1: B}}", "3:47: line 1 is named twice"},
        {chip + "{1: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa}}",
         "3:5: \"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\" is not a valid name of a GPIO line: one line of at most "
         "31 "
         "characters"},
        {device + "tty, terminal: {far-end: loop}}]}",
         "3:67: far-end: \"loop\" is none of echo, capture, none"},
        {device + "net, terminal: {far-end: echo}}]}", "3:25: a net device is not a terminal"},
    };
    for (const auto& [text, refusal] : cases) {
        const TemporaryFolder folder;
        const auto file = folder.write("bad.yaml", text);
        try {
            readDescription(file);
            ADD_FAILURE() << "accepted:\n" << text;
        } catch (const kvsim::DescriptionError& error) {
            EXPECT_EQ(error.what(), file.string() + ":" + refusal);
        }
    }
}

}  // namespace
