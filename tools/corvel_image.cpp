// SPDX-License-Identifier: MIT
// Builds upgrade images, and tells what a device would make of one.
#include <corvel.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/command_line.h"
#include "tools/files.h"
#include "tools/image_builder.h"
#include "tools/image_inspection.h"
#include "tools/image_layout.h"
#include "tools/manifest.h"
#include "tools/text_format.h"

namespace corvel::tools {
namespace {

constexpr const char *help = R"(usage: corvel-image build MANIFEST IMAGE
       corvel-image list IMAGE
       corvel-image verify IMAGE

  build    make an upgrade image: sections, payload checksums, final CRC
  list     show the sections of an image and where a device writes them
  verify   tell whether a device accepts an image, and if not, why

Each argument is a file; "-" is standard input or, for the image that build
makes, standard output.

  -h, --help       print this text
  -V, --version    print the version

A manifest names the sections in their order, the version last:

  [Rootfs]
  file = rootfs.squashfs
  [Linux_kernel]
  file = kernel.bin
  [Ver0]
  text = 2.1.0

A section may have burn-address, padding and mtd-id, too; paths are relative
to the manifest. Exit status: 0 if all is well, 1 if the image is bad or would
be, 2 if a file can't be read or written or the usage is wrong.
)";

void warn(const std::string &path, const Inspection &found) {
    for (const std::string &warning : found.warnings)
        complain(format("%s: warning: %s", printable(path).c_str(), warning.c_str()));
}

Bytes read_image(const std::string &path) {
    Bytes image = read_argument(path, image_size_limit).content;
    if (image.size() > image_size_limit)
        throw Failure(bad_content,
                      printable(path) + format(": size: at most %zu bytes are expected, those "
                                               "of an upload; found more",
                                               image_size_limit));
    return image;
}

ExitStatus verdict(const std::string &path, const Inspection &found) {
    warn(path, found);
    if (found.fault.empty())
        return success;
    complain(printable(path) + ": bad image: " + found.fault);
    return bad_content;
}

/// "4 sections, version 2.1.0"
std::string summary_of(const Inspection &found) {
    const std::size_t count = found.sections.size() + found.unlisted;
    std::string text = format("%zu section%s", count, count == 1 ? "" : "s");
    if (!found.version.empty())
        text += ", version " + found.version;
    if (found.crc)
        text += format(", CRC 0x%08" PRIx32, *found.crc);
    return text;
}

/// An image never takes the place of what it is made from, under any name.
void refuse_source_as_target(const std::vector<FileIdentity> &sources, const std::string &path) {
    const std::optional<FileIdentity> target = target_of_argument(path);
    if (target && std::ranges::find(sources, *target) != sources.end())
        throw Failure(cannot_do_it,
                      printable(path) + ": is one of the files that the image is made from");
}

ExitStatus build(const Arguments &arguments) {
    const BuiltImage image = build_image(read_manifest(arguments.words[0]));
    const std::string &path = arguments.words[1];
    const Inspection found = inspect_image(image.content);
    refuse_source_as_target(image.sources, path);
    if (verdict(path, found) != success)
        return bad_content;
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
        return "BAD";
    case ImageSection::Checksum::none:
        break;
    }
    return "none";
}

/// Where a section goes, in the list's last columns.
std::string target_text(const ImageSection &section) {
    if (section.partition == nullptr)
        return "skipped";
    if (is_version(*section.partition))
        return "not written";
    if (!section.target)
        return "refused";
    std::string text =
        format("%8" PRIu32 "  mtdblock%-5" PRIu32 " mtdblock%" PRIu32, section.target->len,
               device_while_a_runs(*section.target), device_while_b_runs(*section.target));
    if (section.partition->mtd_id == 0) // the boot loader alone has a burn address
        text += format("  burn address 0x%08" PRIx32, section.target->burnAddr);
    return text;
}

void print_section(const ImageSection &section) {
    std::printf(
        "%6zu  0x%07zx  %-9s  %-14s  %10" PRIu32 "  %10" PRIu32 "  %6" PRIu32 "  %-8s  %s\n",
        section.number, section.offset, section.signature.c_str(),
        section.partition != nullptr ? section.partition->name : "unknown", section.length,
        section.padding, section.mtd_id, text_of(section.checksum), target_text(section).c_str());
}

void print_list(const Inspection &found) {
    std::puts("number  offset     signature  partition              len         pad  mtd_id"
              "  checksum  to write  A runs        B runs");
    for (const ImageSection &section : found.sections)
        print_section(section);
    if (found.unlisted != 0)
        std::printf("%6s  %zu more with unknown signatures, skipped\n", "...", found.unlisted);
    if (!found.version.empty())
        std::printf("version: %s\n", found.version.c_str());
    if (found.crc)
        std::printf("CRC: 0x%08" PRIx32 "\n", *found.crc);
}

ExitStatus list(const Arguments &arguments) {
    const Inspection found = inspect_image(read_image(arguments.words[0]));
    print_list(found);
    return verdict(arguments.words[0], found);
}

ExitStatus verify(const Arguments &arguments) {
    const std::string &path = arguments.words[0];
    const Inspection found = inspect_image(read_image(path));
    const ExitStatus status = verdict(path, found);
    if (status == success)
        std::printf("%s: good: %s\n", printable(path).c_str(), summary_of(found).c_str());
    return status;
}

constexpr Command commands[] = {
    {"build", 2, 2, "", build},
    {"list", 1, 1, "", list},
    {"verify", 1, 1, "", verify},
};

} // namespace
} // namespace corvel::tools

int main(int argument_count, char **arguments) {
    return corvel::tools::run_program(
        {"corvel-image", corvel::tools::help, corvel::tools::commands}, argument_count, arguments);
}
