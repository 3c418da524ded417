// SPDX-License-Identifier: MIT
// Builds upgrade images and reports how a device would handle one.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/command_line.h"
#include "tools/files.h"
#include "tools/image_builder.h"
#include "tools/image_inspection.h"
#include "tools/image_layout.h"
#include "tools/json.h"
#include "tools/manifest.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

constexpr const char *help = R"(usage: corvel-image build [--strict] MANIFEST IMAGE
       corvel-image list [--json] IMAGE
       corvel-image verify [--json] [--strict] IMAGE

  build    build an upgrade image: sections, payload checksums, final CRC
  list     show the sections of an image and where a device writes them
  verify   report whether a device accepts an image, and if not, why

Each argument is a file; "-" is standard input or, for the image of build,
standard output.

  -j, --json       list, verify: print a JSON object
  -s, --strict     build, verify: each warning is an error
  -h, --help       print this text
  -V, --version    print the version

A manifest lists the sections in order, the version last:

  [Rootfs]
  file = rootfs.squashfs
  [Linux_kernel]
  file = kernel.bin
  [Ver0]
  text = 2.1.0

A section may also have burn-address, padding and mtd-id. Paths are relative
to the manifest's directory. Exit status: 0 on success, 1 if a device refuses
or would refuse the image, 2 if a file cannot be read or written or the usage
is wrong, 3 if --strict makes a warning an error.
)";

Bytes read_image(const std::string &path) {
    Bytes image = read_argument(path, image_size_limit).content;
    if (image.size() > image_size_limit)
        throw Failure(bad_content,
                      printable(path) + format(": size: at most %zu bytes are expected, the "
                                               "limit of an upload; found more",
                                               image_size_limit));
    return image;
}

/// Prints the warnings and the fault of an image; returns the exit status.
ExitStatus verdict(const Arguments &arguments, const std::string &path, const Inspection &found) {
    const bool strict = arguments.has(Option::strict);
    for (const Warning &warning : found.warnings)
        complain(format("%s: %s: %s", printable(path).c_str(), strict ? "error" : "warning",
                        warning.message.c_str()));
    if (!found.fault.empty()) {
        complain(printable(path) + ": bad image: " + found.fault);
        return bad_content;
    }
    return strict && !found.warnings.empty() ? warned : success;
}

/// "4 sections, version 2.1.0"
std::string summary_of(const Inspection &found) {
    const std::size_t count = found.sections.size() + found.unlisted;
    std::string text = format("%zu section%s", count, count == 1 ? "" : "s");
    if (found.version && !found.version->empty())
        text += ", version " + printable(*found.version);
    if (found.crc)
        text += format(", CRC 0x%08" PRIx32, *found.crc);
    return text;
}

/// Refuses two sections for the same partition, regardless of the set that runs.
void refuse_same_partition(const Manifest &manifest, const Inspection &found) {
    const auto warning = std::ranges::find(found.warnings, "same-partition", &Warning::kind);
    if (warning != found.warnings.end())
        throw Failure(bad_content, place_in(manifest, manifest.sections[warning->section - 1]) +
                                       warning->message);
}

/// Refuses to replace a file that the image is made from, under any name.
void refuse_source_as_target(const std::vector<FileIdentity> &sources, const std::string &path) {
    const std::optional<FileIdentity> target = target_of_argument(path);
    if (target && std::ranges::find(sources, *target) != sources.end())
        throw Failure(cannot_do_it,
                      printable(path) + ": is one of the files that the image is made from");
}

ExitStatus build(const Arguments &arguments) {
    const Manifest manifest = read_manifest(arguments.words[0]);
    const BuiltImage image = build_image(manifest);
    const std::string &path = arguments.words[1];
    const Inspection found = inspect_image(image.content);
    refuse_same_partition(manifest, found);
    refuse_source_as_target(image.sources, path);
    const ExitStatus status = verdict(arguments, path, found);
    if (status != success)
        return status;
    write_argument(path, image.content);
    if (!is_standard_stream(path))
        std::printf("%s: %zu bytes, %s\n", printable(path).c_str(), image.content.size(),
                    summary_of(found).c_str());
    return success;
}

const char *text_of(ImageSection::Checksum checksum) {
    switch (checksum) {
    case ImageSection::Checksum::good:
        return "good";
    case ImageSection::Checksum::bad:
        return "bad";
    case ImageSection::Checksum::none:
        break;
    }
    return "none";
}

/// Where a section is written: the last columns of the list.
std::string target_text(const ImageSection &section) {
    if (section.partition == nullptr)
        return "skipped";
    if (is_version(*section.partition))
        return "not written";
    if (!section.target)
        return "refused";
    std::string text =
        format("%8" PRIu32 "  mtdblock%-5" PRIu32 " mtdblock%" PRIu32, section.target->size,
               section.target->device_while_a_runs, section.target->device_while_b_runs);
    if (section.partition->mtd_id == 0) // only the boot loader has a burn address
        text += format("  burn address 0x%08" PRIx32, section.target->burn_address);
    return text;
}

void print_section(const ImageSection &section) {
    std::printf("%6zu  0x%07zx  %-9s  %-14s  %10" PRIu32 "  %10" PRIu32 "  %6" PRIu32
                "  %-8s  %s\n",
                section.number, section.offset, printable(section.signature).c_str(),
                section.partition != nullptr ? section.partition->name : "unknown", section.length,
                section.padding, section.mtd_id,
                section.checksum == ImageSection::Checksum::bad ? "BAD" : text_of(section.checksum),
                target_text(section).c_str());
}

void print_list(const Inspection &found) {
    std::puts("number  offset     signature  partition              len         pad  mtd_id"
              "  checksum  to write  A runs        B runs");
    for (const ImageSection &section : found.sections)
        print_section(section);
    if (found.unlisted != 0)
        std::printf("%6s  %zu more with unknown signatures, skipped\n", "...", found.unlisted);
    if (found.version && !found.version->empty())
        std::printf("version: %s\n", printable(*found.version).c_str());
    if (found.crc)
        std::printf("CRC: 0x%08" PRIx32 "\n", *found.crc);
    if (found.bytes_after_image != 0)
        std::printf("%s after the image\n", bytes_text(found.bytes_after_image).c_str());
}

std::string json_of(const ImageSection &section) {
    json::Object object;
    object.add("number", json::number(section.number))
        .add("offset", json::number(section.offset))
        .add("signature", json::string(section.signature))
        .add("partition",
             section.partition != nullptr ? json::string(section.partition->name) : json::null)
        .add("burn_address", json::number(section.burn_address))
        .add("mtd_id", json::number(section.mtd_id))
        .add("pad", json::number(section.padding))
        .add("len", json::number(section.length))
        .add("checksum", json::string(text_of(section.checksum)));
    if (!section.target)
        return object.add("target", json::null).text();
    json::Object target;
    target.add("size", json::number(section.target->size))
        .add("mtdblock_while_a_runs", json::number(section.target->device_while_a_runs))
        .add("mtdblock_while_b_runs", json::number(section.target->device_while_b_runs));
    return object.add("target", target.text()).text();
}

std::string json_of(const Warning &warning) {
    return json::Object()
        .add("kind", json::string(warning.kind))
        .add("section", warning.section != 0 ? json::number(warning.section) : json::null)
        .add("message", json::string(warning.message))
        .text();
}

/// An array of json_of() of each item.
template <typename Value> std::string json_of(const std::vector<Value> &values) {
    std::vector<std::string> texts;
    texts.reserve(values.size());
    for (const Value &value : values)
        texts.push_back(json_of(value));
    return json::array(texts);
}

/// The members that list and verify have in common.
json::Object json_of(const std::string &path, std::size_t size, const Inspection &found) {
    json::Object object;
    object.add("file", json::string(path))
        .add("size", json::number(size))
        .add("accepted", json::boolean(found.fault.empty()))
        .add("fault", found.fault.empty() ? json::null : json::string(found.fault))
        .add("warnings", json_of(found.warnings))
        .add("version", found.version ? json::string(*found.version) : json::null)
        .add("crc", found.crc ? json::number(*found.crc) : json::null)
        .add("bytes_after_image", json::number(found.bytes_after_image));
    return object;
}

ExitStatus list(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    const Bytes image = read_image(path);
    const Inspection found = inspect_image(image);
    if (arguments.has(Option::json))
        std::puts(json_of(path, image.size(), found)
                      .add("sections", json_of(found.sections))
                      .add("unlisted_sections", json::number(found.unlisted))
                      .text()
                      .c_str());
    else
        print_list(found);
    return verdict(arguments, path, found);
}

ExitStatus verify(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    const Bytes image = read_image(path);
    const Inspection found = inspect_image(image);
    const ExitStatus status = verdict(arguments, path, found);
    if (arguments.has(Option::json))
        std::puts(json_of(path, image.size(), found).text().c_str());
    else if (status == success)
        std::printf("%s: good: %s\n", printable(path).c_str(), summary_of(found).c_str());
    return status;
}

constexpr Command commands[] = {
    {"build", 2, 2, "s", build},
    {"list", 1, 1, "j", list},
    {"verify", 1, 1, "js", verify},
};

} // namespace
} // namespace corvel::tools

int main(int argument_count, char **arguments) {
    return corvel::tools::run_program(
        {"corvel-image", corvel::tools::help, corvel::tools::commands}, argument_count, arguments);
}
