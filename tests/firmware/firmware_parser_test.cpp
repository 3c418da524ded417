/* SPDX-License-Identifier: MIT */
#include <corvel.h>

#include "tests/firmware/environment_image.h"
#include "tests/firmware/flash.h"
#include "tests/firmware/upgrade_image.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptors.h"
#include "tests/support/golden_files.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/kill_points.h"
#include "tests/support/output_capture.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr std::size_t records_size = CORVEL_IMAGE_RECORDS * sizeof(img_info);

/** Values at which the arithmetic of a field could wrap around. */
constexpr std::uint32_t extremes[] = {0,          1,          2,          19,         20,
                                      254,        255,        256,        0x7FFFFFFF, 0x80000000,
                                      0xFFFFFFEB, 0xFFFFFFEC, 0xFFFFFFFE, 0xFFFFFFFF};

/** What parse_firmware() returns, stores and logs. */
struct Parsed {
    int count = -1;
    int code = -1;
    std::vector<Record> records; /**< All records filled, regardless of the count. */
    std::vector<RecordSyslog::Message> log;
};

Record record_of(const img_info &info, const char *image) {
    return {info.name,
            static_cast<std::uint64_t>(reinterpret_cast<const char *>(info.data) - image),
            info.len,
            info.burnAddr,
            info.mtd_ids,
            info.mtdev,
            info.base_mtd_id};
}

/** Parses an image that ends or begins at an inaccessible page. */
Parsed parse(std::string_view image, GuardPage guard = GuardPage::after) {
    const GuardedBlock block(image, guard);
    const std::string untouched(sizeof(img_info), '\x5A');
    const GuardedBlock array(std::string(records_size, '\x5A'));
    auto *const records = static_cast<img_info *>(static_cast<void *>(array.start()));
    const RecordSyslog log;
    Parsed parsed;
    parsed.count = parse_firmware(reinterpret_cast<const unsigned char *>(block.start()),
                                  static_cast<unsigned int>(image.size()), records, &parsed.code);
    parsed.log = RecordSyslog::messages();
    for (std::size_t i = 0; i < CORVEL_IMAGE_RECORDS; ++i)
        if (array.bytes().substr(i * sizeof(img_info), sizeof(img_info)) != untouched)
            parsed.records.push_back(record_of(records[i], block.start()));
    EXPECT_EQ(block.bytes(), image);
    return parsed;
}

RecordSyslog::Message last_line(const Parsed &parsed) {
    return parsed.log.empty() ? RecordSyslog::Message{-1, "nothing"} : parsed.log.back();
}

std::string hex_of(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes.substr(0, 400)) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

/** Whether the log is as expected; the value of an incomplete CRC is not compared. */
bool is_logged(const Parsed &parsed, const Expected &expected, bool bootparam_is_logged) {
    std::vector<LogLine> lines = expected.log;
    if (bootparam_is_logged)
        lines.insert(lines.begin(), {LOG_INFO, "bootparam=" + std::to_string(bootparam) + "\n"});
    return std::equal(parsed.log.begin(), parsed.log.end(), lines.begin(), lines.end(),
                      [](const RecordSyslog::Message &message, const LogLine &line) {
                          return message.priority == line.priority &&
                                 (line.text.ends_with("crc0=") ? message.text.starts_with(line.text)
                                                               : message.text == line.text);
                      });
}

std::string text_of(const Parsed &parsed) {
    std::ostringstream text;
    text << "count " << parsed.count << ", code " << parsed.code << '\n';
    for (const Record &record : parsed.records)
        text << record << '\n';
    for (const RecordSyslog::Message &message : parsed.log)
        text << message.priority << ' ' << message.text << '\n';
    return text.str();
}

/** Whether the result is that of the model, and all records are inside the image. */
testing::AssertionResult agrees_with_model(std::string_view image,
                                           GuardPage guard = GuardPage::after,
                                           std::uint32_t shift = 2) {
    const Parsed parsed = parse(image, guard);
    const Expected expected = expected_of(image, shift);
    const int count =
        expected.code == CORVEL_IMAGE_ACCEPTED ? static_cast<int>(expected.records.size()) : 0;
    bool inside = true;
    for (const Record &record : parsed.records)
        inside = inside && record.offset + record.length <= image.size();
    if (inside && parsed.code == expected.code && parsed.count == count &&
        parsed.records == expected.records && is_logged(parsed, expected, true))
        return testing::AssertionSuccess();
    auto failure = testing::AssertionFailure();
    failure << "got " << text_of(parsed) << "expected code " << expected.code << '\n';
    for (const Record &record : expected.records)
        failure << record << '\n';
    for (const LogLine &line : expected.log)
        failure << line.priority << ' ' << line.text << '\n';
    return failure << "image of " << image.size() << " bytes: " << hex_of(image);
}

/** Counts the results that the images of a test have, to ensure that it covers each of them. */
class CodesCovered {
  public:
    void add(std::string_view image) {
        ++counts_[static_cast<std::size_t>(expected_of(image, 2).code)];
    }
    [[nodiscard]] bool all() const {
        return std::find(counts_.begin(), counts_.end(), 0) == counts_.end();
    }
    [[nodiscard]] int of(std::size_t code) const { return counts_[code]; }

  private:
    std::array<int, 6> counts_{};
};

/** Runs a part of a test on a device that runs set A. */
void on_set_a(const std::function<void()> &body) { on_device({"bootparam=0"}, body); }

std::string good_image() {
    return upgrade_image({{.signature = "boot", .data = "loader", .burnaddr = 0xBFC00000},
                          {.signature = "root", .data = "root files", .padding = "\xFF\xFF"},
                          {.signature = "kern", .data = "kernel"}});
}

// --- parse_firmware ---

TEST(parse_firmware, ListsTheSectionsAndLogsEachStep) {
    on_set_a([] {
        const std::string image = good_image();
        const Parsed parsed = parse(image);
        EXPECT_EQ(parsed.count, 4);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_ACCEPTED);
        // Each section: 20 bytes of header, data, padding, checksum: 20+6+1, 20+10+2+1, 20+6+1.
        EXPECT_EQ(parsed.records,
                  (std::vector<Record>{
                      {"/tmp/firmware/Boot.bin", 20, 6, 0xBFC00000, 0, "/dev/mtdblock0", 0},
                      {"/tmp/firmware/Rootfs.bin", 47, 10, 0, 4, "/dev/mtdblock4", 2},
                      {"/tmp/firmware/Linux_kernel.bin", 80, 6, 0, 5, "/dev/mtdblock5", 3},
                      {"/tmp/firmware/Ver0.bin", 87, 29, 0, CORVEL_NOT_WRITTEN, "/dev/mtdblock255",
                       CORVEL_NOT_WRITTEN},
                  }));
        const std::vector<RecordSyslog::Message> log = {
            {LOG_INFO, "bootparam=0\n"},
            {LOG_INFO, "find firmware (Boot)\n"},
            {LOG_INFO, "find firmware (Rootfs)\n"},
            {LOG_INFO, "find firmware (Linux_kernel)\n"},
            {LOG_INFO, "find firmware (Ver0)\n"},
            {LOG_INFO, "Web firmware upgrade start..."},
            {LOG_INFO, "name= /tmp/firmware/Boot.bin"},
            {LOG_INFO, "burnAddr= 0xbfc00000"},
            {LOG_INFO, "len= 6"},
            {LOG_INFO, "mtd_ids= 0\n"},
            {LOG_INFO, "mtdev= /dev/mtdblock0"},
            {LOG_INFO, "name= /tmp/firmware/Rootfs.bin"},
            {LOG_INFO, "burnAddr= 0x0000"},
            {LOG_INFO, "len= 10"},
            {LOG_INFO, "mtd_ids= 4\n"},
            {LOG_INFO, "mtdev= /dev/mtdblock4"},
            {LOG_INFO, "name= /tmp/firmware/Linux_kernel.bin"},
            {LOG_INFO, "burnAddr= 0x0000"},
            {LOG_INFO, "len= 6"},
            {LOG_INFO, "mtd_ids= 5\n"},
            {LOG_INFO, "mtdev= /dev/mtdblock5"},
            {LOG_INFO, "name= /tmp/firmware/Ver0.bin"},
            {LOG_INFO, "burnAddr= 0x0000"},
            {LOG_INFO, "len= 29"},
            {LOG_INFO, "mtd_ids= 255\n"},
            {LOG_INFO, "mtdev= /dev/mtdblock255"},
        };
        EXPECT_EQ(parsed.log, log);
    });
}

TEST(parse_firmware, PrintsAndCreatesNothing) {
    on_set_a([] {
        EXPECT_EQ(
            capture_stdout([] { EXPECT_EQ(parse(good_image()).code, CORVEL_IMAGE_ACCEPTED); }), "");
        EXPECT_FALSE(fs::exists("/tmp/firmware"));
        EXPECT_FALSE(fs::exists("/dev/mtdblock4"));
        EXPECT_EQ(read_file(environment_device), EnvironmentImage({"bootparam=0"}).bytes());
    });
}

/** Returns the devices of the records. */
std::vector<std::uint32_t> devices(std::string_view image) {
    std::vector<std::uint32_t> found;
    for (const Record &record : parse(image).records)
        found.push_back(record.device);
    return found;
}

TEST(parse_firmware, ChoosesTheIdleSet) {
    const std::string image = upgrade_image(
        {{.signature = "root", .data = "files"}, {.signature = "kern", .data = "kernel"}});
    on_device({"bootparam=0"}, [&image] {
        EXPECT_EQ(devices(image), (std::vector<std::uint32_t>{4, 5, CORVEL_NOT_WRITTEN}));
        write_environment({"bootparam=1"});
        EXPECT_EQ(devices(image), (std::vector<std::uint32_t>{2, 3, CORVEL_NOT_WRITTEN}));
        EXPECT_TRUE(agrees_with_model(image, GuardPage::after, 0));
    });
}

TEST(parse_firmware, ChoosesSetAIfTheRunningSetIsUnknown) {
    const std::string image = upgrade_image({{.signature = "root", .data = "files"}});
    in_private_root([&image] {
        const Expected expected = expected_of(image, 0);
        Parsed parsed;
        EXPECT_EQ(capture_stdout([&] { parsed = parse(image); }),
                  "Err: can not open file /dev/mtdblock1\n");
        EXPECT_EQ(parsed.records, expected.records);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_ACCEPTED);
        EXPECT_TRUE(is_logged(parsed, expected, false));
    });
}

TEST(parse_firmware, ShiftsNoOtherPartition) {
    on_set_a([] {
        for (const Partition &partition : partitions) {
            const bool is_in_set_a = partition.device == 2 || partition.device == 3;
            const std::uint32_t device = partition.device + (is_in_set_a ? 2 : 0);
            EXPECT_EQ(devices(Section{.signature = partition.signature, .data = "data"}.bytes()),
                      std::vector<std::uint32_t>{device})
                << partition.name;
        }
    });
}

TEST(parse_firmware, KeepsOnlyTheBurnAddressOfTheBootLoader) {
    on_set_a([] {
        for (const Partition &partition : partitions) {
            const std::string image =
                Section{.signature = partition.signature, .data = "data", .burnaddr = 0x9F000000}
                    .bytes();
            const Parsed parsed = parse(image);
            ASSERT_EQ(parsed.records.size(), 1U);
            EXPECT_EQ(parsed.records[0].burnaddr, partition.device == 0 ? 0x9F000000 : 0);
        }
    });
}

TEST(parse_firmware, IncludesTheHeaderOfTheConfiguration) {
    on_set_a([] {
        const std::string section =
            Section{.signature = "conf", .data = "settings", .padding = "pad"}.bytes();
        const Parsed parsed = parse(section);
        ASSERT_EQ(parsed.count, 1);
        EXPECT_EQ(parsed.records[0].offset, 0U);
        EXPECT_EQ(parsed.records[0].length, section.size());
    });
}

TEST(parse_firmware, ChecksTheCrcOnlyIfTheLastSectionIsAVersionSection) {
    on_set_a([] {
        const std::string image = Section{.signature = "root", .data = "files"}.bytes() +
                                  Section{.signature = "kern", .data = "kernel"}.bytes();
        EXPECT_EQ(parse(image).count, 2);
        EXPECT_TRUE(agrees_with_model(image));
        // The CRC of a version section that is not the last one is not checked either.
        const std::string version_first =
            version_section() + Section{.signature = "root", .data = "files"}.bytes();
        EXPECT_EQ(parse(version_first).count, 2);
        EXPECT_TRUE(agrees_with_model(version_first));
    });
}

TEST(parse_firmware, SkipsUnknownSections) {
    on_set_a([] {
        const std::string unknown = raw_section("????", 1, 2, 99, 5, "other");
        const std::string root = Section{.signature = "root", .data = "files"}.bytes();
        const std::string image =
            with_crc(unknown + root + unknown + unknown + unknown + root + version_section());
        const Parsed parsed = parse(image);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_ACCEPTED);
        EXPECT_EQ(parsed.count, 3);
        EXPECT_TRUE(agrees_with_model(image));
    });
}

TEST(parse_firmware, ReadsTheCrcAtTheEndOfTheVersionSection) {
    on_set_a([] {
        const std::string root = Section{.signature = "root", .data = "files"}.bytes();
        // After the version section there are bytes that no section covers, or an unknown section.
        // The CRC of everything except the image's last four bytes is compared with the last four
        // bytes of the version section.
        for (const std::string &tail : {std::string(4, 'x'), std::string(20, '\0'),
                                        raw_section("????", 0, 0, 0, 5, "other")}) {
            const std::string image = with_crc(root + version_section() + tail);
            EXPECT_EQ(parse(image).code, CORVEL_IMAGE_BAD_CRC);
            EXPECT_TRUE(agrees_with_model(image));
        }
    });
}

TEST(parse_firmware, RefusesABadCrc) {
    on_set_a([] {
        std::string image = good_image();
        image.back() = static_cast<char>(image.back() ^ 1);
        const Parsed parsed = parse(image);
        EXPECT_EQ(parsed.count, 0);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_BAD_CRC);
        EXPECT_EQ(parsed.records.size(), 4U);
        const std::uint32_t computed = reference_crc(good_image().substr(0, image.size() - 4));
        EXPECT_EQ(last_line(parsed).priority, LOG_ERR);
        EXPECT_EQ(last_line(parsed).text,
                  log_line(LOG_ERR, "Warning - bad CRC, crc=0x%04x, crc0=0x%04x\n", computed,
                           computed ^ 1)
                      .text);
    });
}

TEST(parse_firmware, ChecksThePayloadsBeforeTheCrc) {
    on_set_a([] {
        std::string image = good_image();
        image[50] = static_cast<char>(image[50] + 1);
        Parsed parsed = parse(image);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_BAD_CHECKSUM);
        EXPECT_EQ(parsed.count, 0);
        EXPECT_EQ(parsed.records.size(), 1U);
        EXPECT_EQ(last_line(parsed),
                  (RecordSyslog::Message{LOG_ERR, "root image checksum error at 2F!\n"}));
        // With the checksum byte corrected, only the CRC is wrong.
        image[59] = static_cast<char>(image[59] - 1);
        parsed = parse(image);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_BAD_CRC);
        EXPECT_EQ(parsed.count, 0);
    });
}

TEST(parse_firmware, ChecksNoChecksumIfTheHeaderSaysNotWritten) {
    on_set_a([] {
        for (const Partition &partition : partitions) {
            const std::string image = raw_section(partition.signature, 0, CORVEL_NOT_WRITTEN, 0, 5,
                                                  "\x01\x02"
                                                  "abc");
            EXPECT_EQ(parse(image).code, partition.device == CORVEL_NOT_WRITTEN
                                             ? CORVEL_IMAGE_BAD_CRC
                                             : CORVEL_IMAGE_ACCEPTED);
            EXPECT_TRUE(agrees_with_model(image));
        }
    });
}

TEST(parse_firmware, ChecksNoSizeIfTheHeaderSaysNotWritten) {
    on_set_a([] {
        const std::string payload(0x20000, 'x');
        for (const char *signature : {"benv", "conf", "artp"}) {
            const std::string image =
                raw_section(signature, 0, CORVEL_NOT_WRITTEN, 0, 0x20000, payload);
            EXPECT_EQ(parse(image).count, 1);
            EXPECT_TRUE(agrees_with_model(image));
        }
    });
}

TEST(parse_firmware, AcceptsASectionThatFillsItsPartitionButNoByteMore) {
    on_set_a([] {
        for (const Partition &partition : partitions) {
            const std::size_t fitting =
                partition.strips_header ? partition.max_size : partition.max_size - 21;
            for (const std::size_t more : {0U, 1U}) {
                const std::string image =
                    Section{.signature = partition.signature,
                            .data = std::string(fitting + more, 'd'),
                            .padding = partition.strips_header ? "padding" : ""}
                        .bytes();
                // A version section is the last one in this image, and its CRC is wrong.
                const int fine = partition.device == CORVEL_NOT_WRITTEN ? CORVEL_IMAGE_BAD_CRC
                                                                        : CORVEL_IMAGE_ACCEPTED;
                EXPECT_EQ(parse(image).code, more == 0 ? fine : CORVEL_IMAGE_SECTION_TOO_LARGE)
                    << partition.name;
                EXPECT_TRUE(agrees_with_model(image));
            }
        }
    });
}

TEST(parse_firmware, LogsASectionThatIsTooLarge) {
    on_set_a([] {
        const std::string image =
            Section{
                .signature = "conf", .data = std::string(0xFFEC, 'c'), .burnaddr = 10, .mtd_id = 7}
                .bytes();
        const Parsed parsed = parse(image);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_SECTION_TOO_LARGE);
        EXPECT_EQ(parsed.log,
                  (std::vector<RecordSyslog::Message>{
                      {LOG_INFO, "bootparam=0\n"},
                      {LOG_INFO, "find firmware (Config)\n"},
                      {LOG_INFO, "Header.signature = conf,  burnaddr=0x0a, mtd_id = 0x0007, pad = "
                                 "0x0000,  len = 0xffed\n"},
                      {LOG_ERR, "conf image size(10001) > 10000!\n"},
                  }));
        EXPECT_TRUE(parsed.records.empty());
        const std::string fitting =
            Section{.signature = "conf", .data = std::string(0xFFEB, 'c')}.bytes();
        EXPECT_EQ(parse(fitting).code, CORVEL_IMAGE_ACCEPTED);
    });
}

TEST(parse_firmware, RefusesPaddingLargerThanThePayload) {
    on_set_a([] {
        for (const std::uint32_t pad : {5U, 6U, 100U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
            const std::string image = raw_section("root", 0, 0, pad, 5, std::string(5, '\0'));
            // The size wraps around: 4 - 0xFFFFFFFF is 5, which includes the checksum byte.
            EXPECT_EQ(parse(image).code,
                      pad == 0xFFFFFFFF ? CORVEL_IMAGE_ACCEPTED : CORVEL_IMAGE_SECTION_TOO_LARGE)
                << pad;
            EXPECT_TRUE(agrees_with_model(image));
        }
        const std::string none = raw_section("root", 0, 0, 0, 0, "x");
        EXPECT_EQ(parse(none).code, CORVEL_IMAGE_SECTION_TOO_LARGE);
        EXPECT_TRUE(agrees_with_model(none));
    });
}

TEST(parse_firmware, EndsARecordAtTheEndOfTheImage) {
    on_set_a([] {
        for (const std::uint32_t pad : {5U, 6U, 0x7FFFFFFFU, 0xFFFFFFF0U}) {
            const std::string image = raw_section("root", 0, CORVEL_NOT_WRITTEN, pad, 5, "12345");
            const Parsed parsed = parse(image);
            EXPECT_EQ(parsed.code, CORVEL_IMAGE_ACCEPTED);
            ASSERT_EQ(parsed.records.size(), 1U);
            EXPECT_LE(parsed.records[0].offset + parsed.records[0].length, image.size());
            EXPECT_TRUE(agrees_with_model(image));
        }
    });
}

TEST(parse_firmware, RefusesMoreThanFourSections) {
    on_set_a([] {
        const Section root{.signature = "root", .data = "files"};
        const std::string four = upgrade_image({root, root, root});
        EXPECT_EQ(parse(four).count, 4);
        const Parsed parsed = parse(upgrade_image({root, root, root, root}));
        EXPECT_EQ(parsed.count, 0);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_TOO_MANY_SECTIONS);
        EXPECT_EQ(parsed.records.size(), 5U) << "the fifth record is filled before it is counted";
        EXPECT_EQ(last_line(parsed), (RecordSyslog::Message{LOG_INFO, "find firmware (Ver0)\n"}));
        EXPECT_TRUE(agrees_with_model(upgrade_image({root, root, root, root})));
        EXPECT_TRUE(agrees_with_model(upgrade_image({root, root, root, root, root, root})));
        // The checksum and the size of the fifth section are checked first.
        const std::string bad_fifth = root.bytes() + root.bytes() + root.bytes() + root.bytes() +
                                      raw_section("kern", 0, 0, 0, 1, "x");
        EXPECT_EQ(parse(bad_fifth).code, CORVEL_IMAGE_BAD_CHECKSUM);
    });
}

TEST(parse_firmware, ToleratesALastSectionFourBytesTooLong) {
    on_set_a([] {
        for (const Partition &partition : partitions) {
            for (std::uint32_t more = 0; more <= 6; ++more) {
                for (const std::uint32_t pad : {0U, 1U, 4U, 9U}) {
                    for (const std::uint32_t mtd_id : {0U, std::uint32_t{CORVEL_NOT_WRITTEN}}) {
                        std::string payload = "payload";
                        payload += checksum_byte(payload);
                        const std::string image =
                            raw_section(partition.signature, 0, mtd_id, pad,
                                        static_cast<std::uint32_t>(payload.size()) + more, payload);
                        EXPECT_EQ(parse(image).code == CORVEL_IMAGE_SECTION_PAST_END, more > 4)
                            << partition.name << more;
                        EXPECT_TRUE(agrees_with_model(image));
                    }
                }
            }
        }
    });
}

TEST(parse_firmware, LogsALengthThatExtendsPastTheEnd) {
    on_set_a([] {
        const std::string root = Section{.signature = "root", .data = "files"}.bytes();
        const std::string image = root + raw_section("kern", 0, 0, 0, 8, "xyz");
        const Parsed parsed = parse(image);
        EXPECT_EQ(parsed.code, CORVEL_IMAGE_SECTION_PAST_END);
        EXPECT_EQ(parsed.count, 0);
        EXPECT_EQ(parsed.records.size(), 1U);
        EXPECT_EQ(
            last_line(parsed),
            (RecordSyslog::Message{LOG_ERR, "Header.len is wrong, headlen(8) >49-26-20=1\n"}));
        const std::string huge = root + raw_section("????", 0, 0, 0, 0xFFFFFFFF, "xyz");
        EXPECT_EQ(
            last_line(parse(huge)),
            (RecordSyslog::Message{LOG_ERR, "Header.len is wrong, headlen(-1) >49-26-20=1\n"}));
    });
}

/** If a version section is longer than the image allows, bytes of its CRC are missing. */
TEST(parse_firmware, RefusesAnIncompleteCrc) {
    on_set_a([] {
        const std::string root = Section{.signature = "root", .data = "files"}.bytes();
        for (std::uint32_t more = 0; more <= 5; ++more) {
            const std::string image =
                with_crc(root + raw_section("Ver0", 0, CORVEL_NOT_WRITTEN, 0, 9 + more,
                                            "1.2.3" + std::string(4, '\0')));
            const Parsed parsed = parse(image);
            EXPECT_EQ(parsed.code, more == 0   ? CORVEL_IMAGE_ACCEPTED
                                   : more == 5 ? CORVEL_IMAGE_SECTION_PAST_END
                                               : CORVEL_IMAGE_BAD_CRC)
                << more;
            EXPECT_TRUE(agrees_with_model(image));
        }
    });
}

#if SIZE_MAX > UINT32_MAX

/** The longest image that can be passed to parse_firmware(), after an inaccessible page. Nearly all
 * of it is zeros, which take no memory. Needs a 64-bit address space. */
class LargestImage {
  public:
    static constexpr std::uint32_t size = UINT32_MAX;

    LargestImage() {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        mapped_ = page + std::size_t{size} + 1;
        void *const memory = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED || mprotect(memory, page, PROT_NONE) != 0)
            throw std::system_error(errno, std::generic_category(), "the largest image");
        memory_ = static_cast<unsigned char *>(memory);
        start_ = memory_ + page;
    }
    LargestImage(const LargestImage &) = delete;
    LargestImage &operator=(const LargestImage &) = delete;
    ~LargestImage() { munmap(memory_, mapped_); }

    void start_with(std::string_view bytes) { std::memcpy(start_, bytes.data(), bytes.size()); }
    [[nodiscard]] const unsigned char *start() const { return start_; }

  private:
    std::size_t mapped_ = 0;
    unsigned char *memory_ = nullptr;
    unsigned char *start_ = nullptr;
};

/** The ends of version sections of these lengths do not fit in 32 bits. */
TEST(parse_firmware, EndsAVersionSectionOfNearly4GiBAtTheEndOfTheImage) {
    on_set_a([] {
        LargestImage image;
        const RecordSyslog log;
        for (const std::uint32_t len : {0xFFFFFFECU, 0xFFFFFFEFU}) {
            image.start_with(raw_section("Ver0", 0, CORVEL_NOT_WRITTEN, 0, len, ""));
            img_info records[CORVEL_IMAGE_RECORDS] = {};
            int code = -1;
            EXPECT_EQ(parse_firmware(image.start(), LargestImage::size, records, &code), 0);
            EXPECT_EQ(code, CORVEL_IMAGE_BAD_CRC) << "the CRC is incomplete";
            EXPECT_EQ(records[0].data, image.start());
            EXPECT_EQ(records[0].len, LargestImage::size);
            EXPECT_EQ(records[0].mtd_ids, std::uint32_t{CORVEL_NOT_WRITTEN});
        }
    });
}

TEST(parse_firmware, RefusesAConfigurationOfNearly4GiB) {
    on_set_a([] {
        LargestImage image;
        const RecordSyslog log;
        image.start_with(raw_section("conf", 0, 0, 0, 0xFFFFFFEF, ""));
        img_info records[CORVEL_IMAGE_RECORDS] = {};
        int code = -1;
        EXPECT_EQ(parse_firmware(image.start(), LargestImage::size, records, &code), 0);
        EXPECT_EQ(code, CORVEL_IMAGE_SECTION_TOO_LARGE)
            << "with its header it is larger than its partition";
        EXPECT_EQ(records[0].data, nullptr);
    });
}

#endif

/** The sums overflow any intermediate result that is too narrow for them. */
TEST(parse_firmware, SumsAnyNumberOfTheLargestByte) {
    on_set_a([] {
        std::vector<std::size_t> lengths = {65535, 65536, 65537, 0x80000};
        for (std::size_t length = 1; length <= 4200; ++length)
            lengths.push_back(length);
        for (const std::size_t length : lengths) {
            const std::string image =
                Section{.signature = "root", .data = std::string(length, '\xFF')}.bytes();
            ASSERT_EQ(parse(image).code, CORVEL_IMAGE_ACCEPTED) << length;
            std::string wrong = image;
            wrong.back() = static_cast<char>(wrong.back() + 1);
            ASSERT_EQ(parse(wrong).code, CORVEL_IMAGE_BAD_CHECKSUM) << length;
        }
    });
}

TEST(parse_firmware, RefusesAnImageWithoutARecognisedSection) {
    on_set_a([] {
        for (const std::string &image :
             {""s, std::string(20, '\0'), std::string(21, '\0'), std::string(1000, '\0'),
              raw_section("????", 0, 0, 0, 5, "other"),
              with_crc(raw_section("????", 0, 0, 0, 9, "123456789")),
              Section{.signature = "root", .data = ""}.bytes().substr(0, 20)}) {
            const Parsed parsed = parse(image);
            EXPECT_EQ(parsed.count, 0);
            EXPECT_EQ(parsed.code, CORVEL_IMAGE_BAD_CRC);
            EXPECT_TRUE(parsed.records.empty());
            EXPECT_EQ(parsed.log, (std::vector<RecordSyslog::Message>{
                                      {LOG_INFO, "bootparam=0\n"},
                                      {LOG_INFO, "Web firmware upgrade start..."},
                                  }));
        }
        img_info records[CORVEL_IMAGE_RECORDS];
        int code = -1;
        const RecordSyslog log;
        EXPECT_EQ(parse_firmware(nullptr, 0, records, &code), 0);
        EXPECT_EQ(code, CORVEL_IMAGE_BAD_CRC);
    });
}

TEST(parse_firmware, AgreesWithTheModelOnImagesOfUpToFortyBytes) {
    on_set_a([] {
        for (std::size_t size = 0; size <= 40; ++size) {
            for (const Partition &partition : partitions) {
                for (std::uint32_t len = 0; len <= 26; ++len) {
                    std::string image =
                        raw_section(partition.signature, 0, 0, 0, len, std::string(20, '\0'));
                    image.resize(size);
                    ASSERT_TRUE(agrees_with_model(image));
                    if (size >= 12)
                        image[at_mtd_id + 3] = '\xFF';
                    ASSERT_TRUE(agrees_with_model(image, GuardPage::before));
                }
            }
            ASSERT_TRUE(agrees_with_model(std::string(size, '\xFF')));
            ASSERT_TRUE(agrees_with_model(std::string(size, 'r')));
        }
    });
}

TEST(parse_firmware, AgreesWithTheModelOnAnImageTruncatedAtEveryByte) {
    on_set_a([] {
        const std::string image = good_image();
        CodesCovered covered;
        for (std::size_t size = 0; size < image.size(); ++size) {
            const std::string truncated = image.substr(0, size);
            EXPECT_TRUE(agrees_with_model(truncated)) << size;
            EXPECT_TRUE(agrees_with_model(truncated, GuardPage::before)) << size;
            covered.add(truncated);
        }
        EXPECT_GT(covered.of(CORVEL_IMAGE_SECTION_PAST_END), 0);
        EXPECT_GT(covered.of(CORVEL_IMAGE_BAD_CRC), 0);
    });
}

TEST(parse_firmware, AgreesWithTheModelOnEveryChangeOfOneByte) {
    on_set_a([] {
        const std::string image = good_image();
        CodesCovered covered;
        std::vector<std::size_t> accepted_places;
        for (std::size_t at = 0; at < image.size(); ++at) {
            for (int change = 1; change < 256; ++change) {
                std::string changed = image;
                changed[at] = static_cast<char>(changed[at] ^ change);
                ASSERT_TRUE(agrees_with_model(changed)) << at << ", " << change;
                covered.add(changed);
                if (expected_of(changed, 2).code == CORVEL_IMAGE_ACCEPTED)
                    accepted_places.push_back(at);
            }
        }
        for (const corvel_image_result code :
             {CORVEL_IMAGE_SECTION_PAST_END, CORVEL_IMAGE_BAD_CHECKSUM,
              CORVEL_IMAGE_SECTION_TOO_LARGE, CORVEL_IMAGE_BAD_CRC})
            EXPECT_GT(covered.of(code), 0) << code;
        // An accepted change hides the version section, and so its CRC: it is a change of its
        // signature or of the length of the section before it.
        for (const std::size_t at : accepted_places)
            EXPECT_TRUE(at >= 60) << at;
    });
}

TEST(parse_firmware, AgreesWithTheModelOnEveryFieldAtItsExtremes) {
    on_set_a([] {
        CodesCovered covered;
        for (const Partition &partition : partitions) {
            for (const std::uint32_t mtd_id : {0U, 1U, 254U, std::uint32_t{CORVEL_NOT_WRITTEN},
                                               256U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
                for (const std::uint32_t pad : extremes) {
                    for (const std::uint32_t len : extremes) {
                        const std::string payload(24, mtd_id == 1 ? 'x' : '\0');
                        const std::string image = with_crc(
                            raw_section(partition.signature, pad ^ len, mtd_id, pad, len, payload) +
                            version_section());
                        ASSERT_TRUE(agrees_with_model(image));
                        covered.add(image);
                    }
                }
            }
        }
        for (const corvel_image_result code :
             {CORVEL_IMAGE_ACCEPTED, CORVEL_IMAGE_SECTION_PAST_END, CORVEL_IMAGE_BAD_CHECKSUM,
              CORVEL_IMAGE_SECTION_TOO_LARGE, CORVEL_IMAGE_BAD_CRC})
            EXPECT_GT(covered.of(code), 0) << code;
    });
}

TEST(parse_firmware, AgreesWithTheModelOnEachFieldOfEachSectionAtItsExtremes) {
    on_set_a([] {
        const std::string image = good_image();
        for (const std::size_t section : {0U, 27U, 60U, 87U}) {
            for (const std::size_t field : {at_signature, at_burnaddr, at_mtd_id, at_pad, at_len}) {
                for (const std::uint32_t value : extremes) {
                    std::string changed = image;
                    changed.replace(section + field, 4, stored(value));
                    EXPECT_TRUE(agrees_with_model(changed));
                    EXPECT_TRUE(agrees_with_model(with_crc(changed)));
                }
            }
        }
    });
}

/** Returns a random section, sometimes a malformed one. */
std::string random_section(std::mt19937 &random, bool last) {
    const auto one_in = [&random](unsigned n) {
        return random() % n == 0;
    };
    std::string data(random() % 40, '\0');
    for (char &byte : data)
        byte = static_cast<char>(random());
    Section section{.signature = one_in(8) ? "????" : partitions[random() % 10].signature,
                    .data = data,
                    .burnaddr = static_cast<std::uint32_t>(random()),
                    .mtd_id = one_in(4) ? std::uint32_t{CORVEL_NOT_WRITTEN}
                                        : static_cast<std::uint32_t>(random() % 10),
                    .padding = std::string(random() % 5, '\xFF')};
    std::string bytes = section.bytes();
    const auto len = static_cast<std::uint32_t>(bytes.size() - header_size);
    if (one_in(12))
        bytes.replace(at_pad, 4, stored(extremes[random() % std::size(extremes)]));
    if (last && one_in(3))
        bytes.replace(at_len, 4, stored(len + static_cast<std::uint32_t>(random() % 8) - 2));
    if (one_in(16))
        bytes.back() = static_cast<char>(bytes.back() + 1);
    return bytes;
}

TEST(parse_firmware, AgreesWithTheModelOnRandomImages) {
    on_set_a([] {
        std::mt19937 random(99);
        CodesCovered covered;
        for (int i = 0; i < 20000; ++i) {
            std::string image;
            const unsigned sections = static_cast<unsigned>(random() % 6);
            const bool versioned = random() % 2 == 0;
            for (unsigned n = 0; n < sections; ++n)
                image += random_section(random, !versioned && n + 1 == sections);
            if (versioned)
                image += version_section(std::string(random() % 9, 'v'));
            if (image.size() >= 4 && random() % 4 != 0)
                image = with_crc(image);
            ASSERT_TRUE(agrees_with_model(image, i % 2 == 0 ? GuardPage::after : GuardPage::before))
                << i;
            covered.add(image);
        }
        EXPECT_TRUE(covered.all());
    });
}

TEST(parse_firmware, ListsTheSectionsOfTheGoldenImage) {
    const std::string image = golden("upgrade.img");
    for (const auto &[running, name] :
         {std::pair{"0", "upgrade-set-a.txt"}, std::pair{"1", "upgrade-set-b.txt"}}) {
        on_device({std::string("bootparam=") + running}, [&image, expected = golden(name)] {
            const Parsed parsed = parse(image);
            EXPECT_EQ(parsed.code, CORVEL_IMAGE_ACCEPTED);
            std::string lines;
            for (const Record &record : parsed.records)
                lines +=
                    log_line(0, "%s %d %d 0x%08x %s %d\n", record.name.c_str(),
                             static_cast<int>(record.offset), static_cast<int>(record.length),
                             record.burnaddr, record.path.c_str(), static_cast<int>(record.base))
                        .text;
            EXPECT_EQ(lines, expected);
        });
    }
}

TEST(UpgradeImageBuilder, ReproducesTheGoldenImage) {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    std::string files;
    for (int i = 0; i < 9; ++i)
        files += "a root file system";
    std::string unknown = "skipped";
    unknown += checksum_byte(unknown);
    EXPECT_EQ(with_crc(Section{.signature = "boot",
                               .data = bytes,
                               .burnaddr = 0xBFC00000,
                               .padding = "\xFF\xFF\xFF"}
                           .bytes() +
                       raw_section("????", 1, 7, 0, 8, unknown) +
                       Section{.signature = "root",
                               .data = files,
                               .burnaddr = 0x9F050000,
                               .mtd_id = 2,
                               .padding = std::string(14, '\0')}
                           .bytes() +
                       Section{.signature = "kern",
                               .data = "\x80\xFF\0kernel"s,
                               .burnaddr = 0x9F6A0000,
                               .mtd_id = 3}
                           .bytes() +
                       version_section("1.2.3 golden")),
              golden("upgrade.img"));
}

// --- dump_img_info ---

TEST(dump_img_info, LogsEachRecord) {
    img_info records[2] = {};
    std::strcpy(records[0].name, "a name");
    std::strcpy(records[0].mtdev, "a device");
    records[0].burnAddr = 0xABC;
    records[0].len = 0xFFFFFFFF;
    records[0].mtd_ids = 0x80000000;
    std::strcpy(records[1].name, "%s");
    const RecordSyslog log;
    EXPECT_EQ(dump_img_info(2, records), 0);
    EXPECT_EQ(RecordSyslog::messages(), (std::vector<RecordSyslog::Message>{
                                            {LOG_INFO, "Web firmware upgrade start..."},
                                            {LOG_INFO, "name= a name"},
                                            {LOG_INFO, "burnAddr= 0x0abc"},
                                            {LOG_INFO, "len= -1"},
                                            {LOG_INFO, "mtd_ids= -2147483648\n"},
                                            {LOG_INFO, "mtdev= a device"},
                                            {LOG_INFO, "name= %s"},
                                            {LOG_INFO, "burnAddr= 0x0000"},
                                            {LOG_INFO, "len= 0"},
                                            {LOG_INFO, "mtd_ids= 0\n"},
                                            {LOG_INFO, "mtdev= "},
                                        }));
}

TEST(dump_img_info, LogsOnlyTheFirstLineWithoutRecords) {
    for (const int count : {0, -1, INT_MIN}) {
        const RecordSyslog log;
        EXPECT_EQ(dump_img_info(count, nullptr), 0);
        EXPECT_EQ(RecordSyslog::messages(), (std::vector<RecordSyslog::Message>{
                                                {LOG_INFO, "Web firmware upgrade start..."}}));
    }
}

// --- flash_write ---

TEST(flash_write, WritesInOneCallAndSyncsAfterClosingTheDevice) {
    const TemporaryDirectory directory;
    directory.write("device", "0123456789");
    const std::vector<int> descriptors = open_descriptors();
    const CountCalls writes(call_write);
    const CountCalls syncs(call_sync);
    const ReplaceSync sync([&] {
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(directory.read("device"), "012abc6789");
    });
    EXPECT_EQ(flash_write(directory.path("device").c_str(), "abcd", 3, 3), 1);
    EXPECT_EQ(directory.read("device"), "012abc6789");
    EXPECT_EQ(writes.count(), 1U);
    EXPECT_EQ(syncs.count(), 1U);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(flash_write, WritesAtAnyOffset) {
    const ReplaceSync sync;
    const TemporaryDirectory directory;
    const std::string path = directory.path("device");
    directory.write("device", "0123456789");
    EXPECT_EQ(flash_write(path.c_str(), "a", 0, 1), 1);
    EXPECT_EQ(flash_write(path.c_str(), "bc", 9, 2), 1);
    EXPECT_EQ(flash_write(path.c_str(), "d", 13, 1), 1);
    EXPECT_EQ(directory.read("device"), "a12345678bc\0\0d"s);
    EXPECT_EQ(flash_write(path.c_str(), nullptr, 0, 0), 1);
    EXPECT_EQ(directory.read("device"), "a12345678bc\0\0d"s);
}

TEST(flash_write, WritesAtTheStartIfSeekingFails) {
    const ReplaceSync sync;
    const TemporaryDirectory directory;
    const std::string path = directory.path("device");
    directory.write("device", "0123456789");
    EXPECT_EQ(flash_write(path.c_str(), "a", -1, 1), 1);
    EXPECT_EQ(directory.read("device"), "a123456789");
    const FailCall failing(call_lseek, 1);
    EXPECT_EQ(flash_write(path.c_str(), "b", 5, 1), 1);
    EXPECT_EQ(failing.failures(), 1U);
    EXPECT_EQ(directory.read("device"), "b123456789");
}

TEST(flash_write, NeverCreatesADevice) {
    const TemporaryDirectory directory;
    const CountCalls syncs(call_sync);
    const ReplaceSync sync;
    for (const std::string &path : {directory.path("missing"), directory.path(), ""s})
        EXPECT_EQ(flash_write(path.c_str(), "a", 0, 1), 0) << path;
    EXPECT_EQ(flash_write(nullptr, "a", 0, 1), 0);
    EXPECT_FALSE(directory.exists("missing"));
    EXPECT_EQ(syncs.count(), 0U);
}

TEST(flash_write, NeedsReadAndWritePermission) {
    expect_as_ordinary_user([] {
        const ReplaceSync sync;
        const TemporaryDirectory directory;
        directory.write("device", "0123456789");
        for (const fs::perms mode : {fs::perms{0400}, fs::perms{0200}, fs::perms{0}}) {
            fs::permissions(directory.path("device"), mode);
            EXPECT_EQ(flash_write(directory.path("device").c_str(), "a", 0, 1), 0);
        }
    });
}

TEST(flash_write, FailsAndSyncsIfWritingFails) {
    const TemporaryDirectory directory;
    directory.write("device", "0123456789");
    const std::vector<int> descriptors = open_descriptors();
    const CountCalls syncs(call_sync);
    const ReplaceSync sync;
    EXPECT_EQ(flash_write("/dev/full", "a", 0, 1), 0);
    const FailCall failing(call_write, 1);
    EXPECT_EQ(flash_write(directory.path("device").c_str(), "a", 0, 1), 0);
    EXPECT_EQ(failing.failures(), 1U);
    EXPECT_EQ(syncs.count(), 2U);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(flash_write, FailsIfNotAllBytesAreWritten) {
    const TemporaryDirectory directory;
    directory.write("device", "");
    expect_in_child([&directory] {
        const ReplaceSync sync;
        const rlimit five_bytes{5, 5};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &five_bytes), 0);
        ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
        EXPECT_EQ(flash_write(directory.path("device").c_str(), "0123456789", 0, 10), 0);
    });
    EXPECT_EQ(directory.read("device"), "01234");
}

// --- file_copy ---

TEST(file_copy, CopiesEveryByte) {
    const TemporaryDirectory directory;
    std::string every;
    for (int i = 0; i < 100000; ++i)
        every += static_cast<char>(i % 257);
    for (const std::string &content : {""s, "\0"s, "\xFF"s, "line\n"s, every}) {
        directory.write("from", content);
        directory.write("to", "previous content");
        EXPECT_EQ(file_copy(directory.path("from").c_str(), directory.path("to").c_str()), 0);
        EXPECT_EQ(directory.read("to"), content);
        EXPECT_EQ(directory.read("from"), content);
        EXPECT_EQ(file_copy(directory.path("from").c_str(), directory.path("new").c_str()), 0);
        EXPECT_EQ(directory.read("new"), content);
        directory.remove("new");
    }
}

TEST(file_copy, FailsIfAFileCannotBeOpened) {
    const TemporaryDirectory directory;
    directory.write("from", "content");
    directory.write("to", "as it was");
    const std::string from = directory.path("from");
    const std::string to = directory.path("to");
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(file_copy(directory.path("missing").c_str(), to.c_str()), -1);
    EXPECT_EQ(file_copy(nullptr, to.c_str()), -1);
    EXPECT_EQ(directory.read("to"), "as it was") << "the target is not opened";
    EXPECT_EQ(file_copy(from.c_str(), directory.path("missing/to").c_str()), -1);
    EXPECT_EQ(file_copy(from.c_str(), directory.path().c_str()), -1);
    EXPECT_EQ(file_copy(from.c_str(), nullptr), -1);
    for (const unsigned long n : {1UL, 2UL}) {
        const FailCall failing(call_fopen, n);
        EXPECT_EQ(file_copy(from.c_str(), to.c_str()), -1);
        EXPECT_EQ(failing.failures(), 1U);
    }
    EXPECT_EQ(directory.read("to"), "as it was");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(file_copy, CopiesADirectoryAsAnEmptyFile) {
    const TemporaryDirectory directory;
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(file_copy(directory.path().c_str(), directory.path("to").c_str()), 0);
    EXPECT_EQ(directory.read("to"), "");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(file_copy, IgnoresWriteErrors) {
    const TemporaryDirectory directory;
    directory.write("from", std::string(100000, 'x'));
    const std::vector<int> descriptors = open_descriptors();
    EXPECT_EQ(file_copy(directory.path("from").c_str(), "/dev/full"), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(file_copy, ClosesItsFilesWithoutMemory) {
    const TemporaryDirectory directory;
    directory.write("from", "content");
    const std::string from = directory.path("from");
    const std::string to = directory.path("to");
    const std::vector<int> descriptors = open_descriptors();
    for_each_allocation_failure([&](AllocationTrial &trial) {
        const int result = trial.run([&] { return file_copy(from.c_str(), to.c_str()); });
        EXPECT_TRUE(result == 0 || (result == -1 && trial.failed()));
        EXPECT_EQ(open_descriptors(), descriptors);
    });
    EXPECT_EQ(read_file(to), "content");
}

// --- A whole upgrade ---

/** Fills each partition with the digit of its device; the environment says that set A runs. */
void fill_flash(std::size_t divisor) {
    for (const Partition &partition : partitions)
        if (partition.device != CORVEL_NOT_WRITTEN)
            write_file(block_device(partition.device),
                       std::string(partition.max_size / divisor,
                                   static_cast<char>('0' + partition.device)));
    write_environment({"bootdelay=1", "bootparam=0"});
}

/** Does what an upgrade program does, and returns the result for the image. */
int upgrade(const std::string &image) {
    const RecordSyslog log;
    const ReplaceSync sync;
    img_info records[CORVEL_IMAGE_RECORDS];
    int code = -1;
    const int count = parse_firmware(reinterpret_cast<const unsigned char *>(image.data()),
                                     static_cast<unsigned int>(image.size()), records, &code);
    for (const img_info &record : std::span(records, static_cast<std::size_t>(count))) {
        if (record.mtd_ids != CORVEL_NOT_WRITTEN) {
            EXPECT_EQ(flash_write(record.mtdev, record.data, 0, record.len), 1) << record.mtdev;
        }
    }
    if (code == CORVEL_IMAGE_ACCEPTED) {
        EXPECT_EQ(save_bootparam(), 0U);
    }
    return code;
}

/** Returns an image with a root file system and a kernel of these sizes. */
std::string release(char fill, std::size_t root_size, std::size_t kernel_size) {
    return upgrade_image(
        {{.signature = "root", .data = std::string(root_size, fill), .padding = "\xFF\xFF\xFF"},
         {.signature = "kern", .data = std::string(kernel_size, static_cast<char>(fill + 1))}});
}

/** Expects that a partition contains @p length bytes @p fill, followed by its previous bytes. */
void expect_content(unsigned int device, char fill, std::size_t length, char before) {
    const std::string content = read_file(block_device(device));
    ASSERT_LE(length, content.size());
    EXPECT_EQ(content.find_first_not_of(fill),
              length == content.size() ? std::string::npos : length)
        << device;
    EXPECT_EQ(content.find_first_not_of(before, length), std::string::npos) << device;
}

TEST(Upgrade, AlternatesBetweenTheSets) {
    in_private_root([] {
        fill_flash(1);
        // Each upgrade is a separate process.
        expect_in_child(
            [] { EXPECT_EQ(upgrade(release('p', 0x650000, 0x100000)), CORVEL_IMAGE_ACCEPTED); });
        expect_content(2, '2', 0x650000, '2');
        expect_content(3, '3', 0x100000, '3');
        expect_content(4, 'p', 0x650000, '4');
        expect_content(5, 'q', 0x100000, '5');
        EXPECT_EQ(read_file(environment_device),
                  EnvironmentImage({"bootdelay=1", "bootparam=1"}).bytes());

        expect_in_child(
            [] { EXPECT_EQ(upgrade(release('s', 1000000, 70000)), CORVEL_IMAGE_ACCEPTED); });
        expect_content(2, 's', 1000000, '2');
        expect_content(3, 't', 70000, '3');
        expect_content(4, 'p', 0x650000, '4');
        expect_content(5, 'q', 0x100000, '5');
        EXPECT_EQ(read_file(environment_device),
                  EnvironmentImage({"bootdelay=1", "bootparam=0"}).bytes());

        expect_in_child([] {
            std::string bad = release('v', 1000, 1000);
            bad[100] = 'x';
            EXPECT_EQ(upgrade(bad), CORVEL_IMAGE_BAD_CHECKSUM);
        });
        expect_content(4, 'p', 0x650000, '4');
        expect_content(5, 'q', 0x100000, '5');
        EXPECT_EQ(read_file(environment_device),
                  EnvironmentImage({"bootdelay=1", "bootparam=0"}).bytes());
        for (const unsigned int device : {0U, 6U, 7U, 8U}) {
            const char fill = static_cast<char>('0' + device);
            expect_content(device, fill, read_file(block_device(device)).size(), fill);
        }
    });
}

TEST(Upgrade, LeavesTheRunningSetUnchangedWhereverItIsKilled) {
    in_private_root([] {
        const std::string image = release('p', 3000, 300);
        const std::string before = EnvironmentImage({"bootdelay=1", "bootparam=0"}).bytes();
        const std::string after = EnvironmentImage({"bootdelay=1", "bootparam=1"}).bytes();
        const unsigned long points = for_each_kill_point(
            [] { fill_flash(64); }, [&image] { upgrade(image); },
            [&](unsigned long n) {
                for (const unsigned int device : {0U, 2U, 3U, 6U, 7U, 8U}) {
                    const char fill = static_cast<char>('0' + device);
                    expect_content(device, fill, read_file(block_device(device)).size(), fill);
                }
                // Opening a file for the environment empties it; a block device keeps its bytes.
                const std::string environment = read_file(environment_device);
                EXPECT_TRUE(environment == before || environment == after || environment.empty())
                    << n;
                if (environment != before) {
                    expect_content(4, 'p', 3000, '4');
                    expect_content(5, 'q', 300, '5');
                }
            });
        EXPECT_GT(points, 10U);
    });
}

} // namespace
