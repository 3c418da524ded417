/* SPDX-License-Identifier: MIT */
/* Compares what each shared library exports and needs with its header and its list of names. */
#include <corvel.h>

#include "tests/firmware/environment_image.h"
#include "tests/firmware/upgrade_image.h"
#include "tests/support/output_capture.h"
#include "tests/support/temporary_directory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace corvel_test;
using namespace std::string_literals;
using Names = std::set<std::string>;

// Fields are in the documented order, without holes, for both sizes of pointers.
constexpr std::size_t pointer = sizeof(void *);
static_assert(pointer == 4 || pointer == 8);
static_assert(std::is_standard_layout_v<prop_entry> && std::is_trivial_v<prop_entry>);
static_assert(std::is_same_v<decltype(prop_entry::name_size), std::uint32_t>);
static_assert(std::is_same_v<decltype(prop_entry::value_size), std::uint32_t>);
static_assert(std::is_same_v<decltype(prop_entry::name), char *>);
static_assert(std::is_same_v<decltype(prop_entry::value), char *>);
static_assert(offsetof(prop_entry, name_size) == 0);
static_assert(offsetof(prop_entry, value_size) == 4);
static_assert(offsetof(prop_entry, name) == 8);
static_assert(offsetof(prop_entry, value) == 8 + pointer);
static_assert(sizeof(prop_entry) == (pointer == 8 ? 24 : 16));
static_assert(std::is_standard_layout_v<str_node> && std::is_trivial_v<str_node>);
static_assert(std::is_same_v<decltype(str_node::name), char[255]>);
static_assert(std::is_same_v<decltype(str_node::value), char[4097]>);
static_assert(std::is_same_v<decltype(str_node::next), str_node *>);
static_assert(offsetof(str_node, name) == 0);
static_assert(offsetof(str_node, value) == 255);
static_assert(offsetof(str_node, next) == 4352);
static_assert(sizeof(str_node) == (pointer == 8 ? 4360 : 4356));
static_assert(std::is_standard_layout_v<prop_file> && std::is_trivial_v<prop_file>);
static_assert(std::is_same_v<decltype(prop_file::filename), char[255]>);
static_assert(std::is_same_v<decltype(prop_file::content_type), char[255]>);
static_assert(std::is_same_v<decltype(prop_file::transfer_encoding), char[258]>);
static_assert(std::is_same_v<decltype(prop_file::data), char *>);
static_assert(std::is_same_v<decltype(prop_file::size), std::uint32_t>);
static_assert(offsetof(prop_file, filename) == 0);
static_assert(offsetof(prop_file, content_type) == 255);
static_assert(offsetof(prop_file, transfer_encoding) == 510);
static_assert(offsetof(prop_file, data) == 768);
static_assert(offsetof(prop_file, size) == 768 + pointer);
static_assert(sizeof(prop_file) == (pointer == 8 ? 784 : 776));
static_assert(std::is_standard_layout_v<img_info> && std::is_trivial_v<img_info>);
static_assert(std::is_same_v<decltype(img_info::name), char[256]>);
static_assert(std::is_same_v<decltype(img_info::data), const unsigned char *>);
static_assert(std::is_same_v<decltype(img_info::burnAddr), std::uint32_t>);
static_assert(std::is_same_v<decltype(img_info::len), std::uint32_t>);
static_assert(std::is_same_v<decltype(img_info::mtd_ids), std::uint32_t>);
static_assert(std::is_same_v<decltype(img_info::mtdev), char[32]>);
static_assert(std::is_same_v<decltype(img_info::base_mtd_id), std::uint32_t>);
static_assert(offsetof(img_info, name) == 0);
static_assert(offsetof(img_info, data) == 256);
static_assert(offsetof(img_info, burnAddr) == 256 + pointer);
static_assert(offsetof(img_info, len) == 260 + pointer);
static_assert(offsetof(img_info, mtd_ids) == 264 + pointer);
static_assert(offsetof(img_info, mtdev) == 268 + pointer);
static_assert(offsetof(img_info, base_mtd_id) == 300 + pointer);
static_assert(sizeof(img_info) == (pointer == 8 ? 312 : 308));
static_assert(std::is_standard_layout_v<lease_entry> && std::is_trivial_v<lease_entry>);
static_assert(std::is_same_v<decltype(lease_entry::reserved), std::int32_t>);
static_assert(std::is_same_v<decltype(lease_entry::ip), char[128]>);
static_assert(std::is_same_v<decltype(lease_entry::hwtype), char[8]>);
static_assert(std::is_same_v<decltype(lease_entry::mac), char[32]>);
static_assert(std::is_same_v<decltype(lease_entry::expires), char[16]>);
static_assert(std::is_same_v<decltype(lease_entry::hostname), char[128]>);
static_assert(std::is_same_v<decltype(lease_entry::next), lease_entry *>);
static_assert(offsetof(lease_entry, reserved) == 0);
static_assert(offsetof(lease_entry, ip) == 4);
static_assert(offsetof(lease_entry, hwtype) == 132);
static_assert(offsetof(lease_entry, mac) == 140);
static_assert(offsetof(lease_entry, expires) == 172);
static_assert(offsetof(lease_entry, hostname) == 188);
static_assert(offsetof(lease_entry, next) == (pointer == 8 ? 320 : 316));
static_assert(sizeof(lease_entry) == (pointer == 8 ? 328 : 320));

// The compiler may merge the two functions; libcorvel.abi then contains the type of only one name.
static_assert(std::is_same_v<decltype(str_regular), decltype(add_escape)>);

// The named values are part of the interface: programs are compiled with them.
static_assert(CORVEL_ATTRIBUTE_SIZE == 200);
static_assert(CORVEL_LINE_SIZE == 1024);
static_assert(CORVEL_PROP_VALUE_SIZE == 257);
static_assert(CORVEL_GET_PROP_SIZE == 256);
static_assert(CORVEL_PATH_SIZE == 1024);
static_assert(CORVEL_GLOBAL_CONF_COPY_SIZE == 255);
static_assert(CORVEL_FIELD_NAME_SIZE == 255);
static_assert(CORVEL_FIELD_VALUE_SIZE == 4097);
static_assert(CORVEL_REQUEST_NAME_SIZE == 128);
static_assert(CORVEL_REQUEST_VALUE_SIZE == 256);
static_assert(CORVEL_AJAX_PAIRS == 2048);
static_assert(CORVEL_GET_VAL_AWK_SIZE == 4096);
static_assert(CORVEL_UPLOAD_MAX == 16777216);
static_assert(CORVEL_UPLOAD_MAX_UNPAUSED == 6144);
static_assert(CORVEL_UPLOAD_FILES == 4);
static_assert(CORVEL_UPLOAD_NAME_SIZE == 255);
static_assert(CORVEL_UPLOAD_TYPE_SIZE == 255);
static_assert(CORVEL_UPLOAD_ENCODING_SIZE == 258);
static_assert(CORVEL_UPLOAD_HEADER_MAX == 256);
static_assert(CORVEL_UPLOAD_LINE_REACH == 16384);
static_assert(CORVEL_ENV_SIZE == 65536);
static_assert(CORVEL_ENV_DATA_SIZE == 65532);
static_assert(CORVEL_PARTITIONS == 10);
static_assert(CORVEL_SIGNATURE_SIZE == 4);
static_assert(CORVEL_NO_PARTITION == 255);
static_assert(CORVEL_NOT_WRITTEN == 255);
static_assert(CORVEL_IMAGE_RECORDS == 5);
static_assert(CORVEL_IMAGE_MAX_SECTIONS == 4);
static_assert(CORVEL_IMAGE_NAME_SIZE == 256);
static_assert(CORVEL_IMAGE_DEVICE_SIZE == 32);
static_assert(CORVEL_MAC_BYTES == 6);
static_assert(CORVEL_MAC_SIZE == 18);
static_assert(CORVEL_MAC_STRIPPED_SIZE == 13);
static_assert(CORVEL_DECIMAL_SIZE == 12);
static_assert(CORVEL_WLAN_NAME_SIZE == 16);
static_assert(CORVEL_RADIO_NAME_SIZE == 8);
static_assert(CORVEL_ADDRESS_SIZE == 16);
static_assert(CORVEL_IPV4_SIZE == 16);
static_assert(CORVEL_IPV6_SIZE == 64);
static_assert(CORVEL_LEASE_IP_SIZE == 128);
static_assert(CORVEL_LEASE_TYPE_SIZE == 8);
static_assert(CORVEL_LEASE_MAC_SIZE == 32);
static_assert(CORVEL_LEASE_EXPIRES_SIZE == 16);
static_assert(CORVEL_LEASE_HOST_SIZE == 128);
static_assert(CORVEL_LEASE_RECORD_SIZE == 24);
static_assert(CORVEL_TRAP_SIZE == 156);
static_assert(CORVEL_TRAP_MESSAGE_SIZE == 172);
static_assert(CORVEL_PART_FILE == 0);
static_assert(CORVEL_PART_NO_START == -1);
static_assert(CORVEL_PART_NO_END == -2);
static_assert(CORVEL_PART_NO_FILENAME == -3);
static_assert(CORVEL_PART_NO_TYPE == -4);
static_assert(CORVEL_ENV_GOOD == 0);
static_assert(CORVEL_ENV_BAD_CRC == 1);
static_assert(CORVEL_ENV_UNREADABLE == -1);
static_assert(CORVEL_SET_A == 0);
static_assert(CORVEL_SET_B == 1);
static_assert(CORVEL_IMAGE_ACCEPTED == 0);
static_assert(CORVEL_IMAGE_SECTION_PAST_END == 1);
static_assert(CORVEL_IMAGE_BAD_CHECKSUM == 2);
static_assert(CORVEL_IMAGE_SECTION_TOO_LARGE == 3);
static_assert(CORVEL_IMAGE_TOO_MANY_SECTIONS == 4);
static_assert(CORVEL_IMAGE_BAD_CRC == 5);
static_assert(CORVEL_ADDRESS_IPV4 == 0);
static_assert(CORVEL_ADDRESS_NETMASK == 1);
static_assert(CORVEL_ADDRESS_HARDWARE == 3);
static_assert(CORVEL_ADDRESS_IPV6 == 4);
static_assert(CORVEL_LOGIN_ACCEPTED == 0);
static_assert(CORVEL_LOGIN_REFUSED == -1);
static_assert(CORVEL_PASSWORD_CHANGED == 0);
static_assert(CORVEL_PASSWORD_COMMAND_FAILED == 121);
static_assert(CORVEL_PASSWORD_SHELL_FAILED == 122);
static_assert(CORVEL_PASSWORD_REFUSED == 123);

/* The start of the command line of a program for another processor; empty for the machine's own. */
#ifndef CORVEL_EMULATOR
#define CORVEL_EMULATOR ""
#endif

#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
constexpr bool sanitized = __has_feature(address_sanitizer);
#else
constexpr bool sanitized = false;
#endif

std::vector<std::string> lines_of(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> output_of(const std::string &command) {
    const ChildResult child = run_in_child([&command] { return std::system(command.c_str()); });
    EXPECT_EQ(child.exit_status, 0) << command << '\n' << child.err;
    return lines_of(child.out);
}

/** A shared library, and what it is compared with. */
struct Library {
    const char *name;
    const char *path;
    const char *header;
    const char *mark;    ///< what the header puts before each exported declaration
    const char *exports; ///< the file with the names of the exports, one in each line
    const char *needed;  ///< a pattern for the names of the libraries that it may need
};

/** Names the library in the output of a test. */
void PrintTo(const Library &library, std::ostream *out) { *out << library.name; }

constexpr Library libraries[] = {
    {"corvel", CORVEL_LIBRARY, CORVEL_HEADER, "CORVEL_API", CORVEL_EXPORTS, "c|crypt"},
    {"corvel_page", CORVEL_PAGE_LIBRARY, CORVEL_PAGE_HEADER, "CORVEL_PAGE_API", CORVEL_PAGE_EXPORTS,
     "c|corvel"},
};

/** The dynamic symbols that `nm` prints with these options: the last word of each line. */
Names symbols(const Library &library, const std::string &options) {
    Names names;
    for (const std::string &line :
         output_of(CORVEL_NM " -D " + options + " '" + library.path + "'")) {
        const std::string name = line.substr(line.find_last_of(' ') + 1);
        names.insert(name.substr(0, name.find('@')));
    }
    return names;
}

/** The values in brackets after a tag of the dynamic section. */
Names dynamic_entries(const Library &library, const std::string &tag) {
    Names values;
    for (const std::string &line : output_of(CORVEL_READELF " -dW '"s + library.path + "'"))
        if (line.find("(" + tag + ")") != std::string::npos)
            values.insert(line.substr(line.find('[') + 1, line.rfind(']') - line.find('[') - 1));
    return values;
}

Names listed(const Library &library) {
    const std::vector<std::string> lines = lines_of(read_file(library.exports));
    Names names(lines.begin(), lines.end());
    EXPECT_EQ(names.size(), lines.size()) << "a name is listed twice";
    return names;
}

/** The header with each comment replaced by a space. Not with std::regex, which recurses for each
 * character. */
std::string header_without_comments(const Library &library) {
    const std::string header = read_file(library.header);
    std::string text;
    std::size_t start = 0;
    for (std::size_t comment = header.find("/*"); comment != std::string::npos;
         comment = header.find("/*", start)) {
        text += header.substr(start, comment - start) + " ";
        start = header.find("*/", comment + 2) + 2;
    }
    return text + header.substr(start);
}

/** The names that the header declares with the library's mark. */
Names declared(const Library &library) {
    std::string text = header_without_comments(library);
    text = std::regex_replace(text, std::regex(R"(#[^\n]*)"), " ");
    // The name is the last word before the parameters, the size of an array, or the end.
    const std::regex declaration("\\b"s + library.mark + R"(\s[^;(\[]*?(\w+)\s*[;(\[])");
    Names names;
    for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end;
         ++match)
        names.insert((*match)[1]);
    return names;
}

class Surface : public testing::TestWithParam<Library> {};

TEST_P(Surface, DeclaresExactlyWhatIsListed) {
    EXPECT_EQ(declared(GetParam()), listed(GetParam()));
}

TEST_P(Surface, ExportsExactlyWhatIsListed) {
    EXPECT_EQ(symbols(GetParam(), "--defined-only"), listed(GetParam()));
}

TEST_P(Surface, MarksEveryFunctionOfTheHeader) {
    const std::string text = header_without_comments(GetParam());
    const std::regex unmarked("\\n(?!"s + GetParam().mark + R"(|typedef|#| )[^\n]*\w\()");
    EXPECT_FALSE(std::regex_search(text, unmarked));
}

TEST_P(Surface, NeedsOnlyTheCLibraryAndWhatItIsBuiltOn) {
    const std::regex allowed(
        "lib("s + GetParam().needed +
        (sanitized ? R"(|asan|ubsan|clang_rt\.\w+|m|gcc_s)[.-].*)" : R"()\..*)"));
    const Names needed = dynamic_entries(GetParam(), "NEEDED");
    EXPECT_FALSE(needed.empty());
    for (const std::string &library : needed)
        EXPECT_TRUE(std::regex_match(library, allowed)) << library;
}

TEST_P(Surface, HasItsSoname) {
    const std::string file = "lib"s + GetParam().name + ".so";
    EXPECT_EQ(dynamic_entries(GetParam(), "SONAME"), Names{file + ".1"});
    namespace fs = std::filesystem;
    const fs::path directory = fs::path(GetParam().path).parent_path();
    EXPECT_TRUE(fs::is_symlink(directory / file));
    EXPECT_EQ(fs::canonical(directory / (file + ".1")), fs::canonical(GetParam().path));
    EXPECT_EQ(fs::canonical(directory / file), fs::canonical(GetParam().path));
}

TEST_P(Surface, NeedsNothingOfTheCxxRuntime) {
    for (const std::string &name : symbols(GetParam(), "--undefined-only")) {
        // The C start-up files of every shared object refer to this one.
        if (name == "__cxa_finalize")
            continue;
        for (const char *prefix : {"_Z", "__cxa", "__gxx", "_Unwind"})
            EXPECT_FALSE(name.starts_with(prefix)) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Libraries, Surface, testing::ValuesIn(libraries),
                         [](const auto &library) { return std::string(library.param.name); });

TEST(PageKit, ExportsOnlyNamesWithThePrefix) {
    for (const std::string &name : symbols(libraries[1], "--defined-only"))
        EXPECT_TRUE(name.starts_with("corvel_")) << name;
}

TEST(OwnFunctions, AreCalledEvenIfTheProgramDefinesTheirNames) {
    const TemporaryDirectory directory;
    directory.write("conf", "A=\"1\"\n");
    directory.write("page", "<h1>$title</h1>\n");
    directory.write("env", EnvironmentImage({"bootargs=root=31:2 x", "bootparam=0"}).bytes());
    directory.write("image", upgrade_image({{.signature = "root", .data = "files"}}));
    // The body of a form, followed by that of an upload that is large enough for the pause.
    const std::string content(7000, 'c');
    directory.write("input", "d=4%21--b\r\nContent-Disposition: form-data; name=\"f\"; "
                             "filename=\"f.bin\"\r\nContent-Type: text/plain\r\n\r\n" +
                                 content + "\r\n--b--\r\n");
    // Started by a short path: the program looks for its own name in its command line, of which
    // only the first characters are read.
    const std::filesystem::path program = CORVEL_OWN_FUNCTIONS;
    const std::string command = "cd '" + program.parent_path().string() + "' && " +
                                CORVEL_EMULATOR "'./" + program.filename().string() + "' '" +
                                directory.path() + "' <'" + directory.path("input") + "'";
    const ChildResult child = run_in_child([&command] { return std::system(command.c_str()); });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(directory.read("conf"), "A=\"saved\"\nC=3\n");
    EXPECT_EQ(directory.read("env"),
              EnvironmentImage({"bootargs=root=31:2 x", "bootparam=1"}).bytes());
    for (const char *part : {"pos=31:2\n", "2 records, code 0\n", "1 file, 7000 bytes\n", "new\n",
                             "\t\"A\":\"new\",\n\t\"B\":\"2\"", "<h1>Page</h1>\n",
                             "\t\"title\":\"Page\",\n\t\"text\":\"Text\"", "\n7\n2 b c!\n1 4!\n"})
        EXPECT_NE(child.out.find(part), std::string::npos) << part << "\nis missing in\n"
                                                           << child.out;
}

class SharedObjects : public testing::TestWithParam<const char *> {};

TEST_P(SharedObjects, AreTheSameInTheProgramAndTheLibrary) {
    const TemporaryDirectory directory;
    std::string data = EnvironmentImage({"bootparam=1"}).data();
    data.back() = 'E';
    directory.write("env", EnvironmentImage::of_data(data).bytes());
    const ChildResult child = run_in_child([&directory] {
        return std::system(
            (CORVEL_EMULATOR "'"s + GetParam() + "' '" + directory.path("env") + "'").c_str());
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.out, "");
}

INSTANTIATE_TEST_SUITE_P(Programs, SharedObjects,
                         testing::Values(CORVEL_SHARED_OBJECTS_PIE, CORVEL_SHARED_OBJECTS_NO_PIE),
                         [](const auto &program) {
                             return program.index == 0 ? "PositionIndependent" : "FixedPosition";
                         });

} // namespace
