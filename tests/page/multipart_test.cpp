// SPDX-License-Identifier: MIT
// Multipart forms read as a stream: which fields and files arrive, and how each fault is reported.
#include <corvel.h>
#include <corvel_page.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/support/environment.h"
#include "tests/support/output_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/stand_in.h"
#include "tests/support/temporary_directory.h"

using namespace corvel_test;

namespace {

const std::string boundary = "----formboundary7MA4YWxkTrZu0gW";

/** A file as the sink received it. */
struct File {
    std::string field;
    std::string name;
    std::string type;
    std::string content;
    bool is_complete = false;

    friend bool operator==(const File &, const File &) = default;
    friend std::ostream &operator<<(std::ostream &out, const File &file) {
        return out << "{" << file.field << ", " << file.name << ", " << file.type << ", "
                   << file.content.size() << " bytes, " << file.is_complete << "}";
    }
};

/** Collects files; can stop the upload in any of its functions. */
struct Collector {
    std::vector<File> files;
    bool accepts_files = true;
    bool accepts_data = true;
    bool accepts_end = true;
    std::size_t largest_piece = 0;

    corvel_upload_sink sink() {
        return {this,
                [](void *self, const corvel_part *part) {
                    auto &own = *static_cast<Collector *>(self);
                    own.files.push_back({part->name, part->filename, part->type, "", false});
                    return own.accepts_files;
                },
                [](void *self, const void *bytes, std::size_t size) {
                    auto &own = *static_cast<Collector *>(self);
                    own.files.back().content.append(static_cast<const char *>(bytes), size);
                    own.largest_piece = std::max(own.largest_piece, size);
                    return own.accepts_data;
                },
                [](void *self) {
                    auto &own = *static_cast<Collector *>(self);
                    own.files.back().is_complete = true;
                    return own.accepts_end;
                }};
    }
};

struct RequestRelease {
    void operator()(corvel_request *request) const { corvel_request_free(request); }
};

enum Chunked { chunked };

/** A POST of a multipart body, accepted by a page. */
class Upload {
  public:
    explicit Upload(const std::string &body,
                    const std::string &type = "multipart/form-data; boundary=" + boundary,
                    StandardInput::Kind kind = StandardInput::Kind::file)
        : Upload(body, type, std::to_string(body.size()), kind) {}
    /** A body whose length the web server does not know. */
    Upload(const std::string &body, Chunked /*chunked*/)
        : Upload(body, "multipart/form-data; boundary=" + boundary, std::nullopt,
                 StandardInput::Kind::file) {}

    corvel_upload_result read(const corvel_upload_limits *limits = nullptr) {
        const corvel_upload_sink sink = collector.sink();
        return corvel_upload_read(request_.get(), limits, &sink);
    }
    corvel_upload_result save(const std::string &field, const std::string &path,
                              const corvel_upload_limits *limits = nullptr) {
        return corvel_upload_save(request_.get(), limits, field.c_str(), path.c_str());
    }
    /** The value of a field; "(missing)" if there is none. */
    std::string field(const char *name) const {
        const char *const value = corvel_field(request_.get(), name);
        return value != nullptr ? value : "(missing)";
    }
    const std::vector<File> &files() const { return collector.files; }
    corvel_request *request() { return request_.get(); }

    Collector collector;

  private:
    Upload(const std::string &body, const std::string &type,
           const std::optional<std::string> &length, StandardInput::Kind kind)
        : type_("CONTENT_TYPE", type), length_("CONTENT_LENGTH", length),
          encoding_("HTTP_TRANSFER_ENCODING",
                    length ? std::nullopt : std::optional<std::string>("chunked")),
          input_(body, kind), request_(corvel_request_begin()) {
        const corvel_request_rules rules = {.methods = CORVEL_POST,
                                            .types = CORVEL_MULTIPART,
                                            .body_max = std::size_t{64} << 20,
                                            .pairs_max = 0,
                                            .memory_max = 0,
                                            .body_seconds = 5,
                                            .accept_other_sites = false,
                                            .hosts = nullptr};
        EXPECT_EQ(corvel_request_read(request_.get(), &rules), CORVEL_HTTP_OK);
    }

    EnvironmentVariable method_{"REQUEST_METHOD", "POST"};
    EnvironmentVariable type_;
    EnvironmentVariable length_;
    EnvironmentVariable encoding_;
    StandardInput input_;
    std::unique_ptr<corvel_request, RequestRelease> request_;
};

/** A body with a line ending of the caller's choice; each part is header lines, an empty line and
 * content, written with LF, of which the header's are converted. */
std::string body_of(const std::vector<std::pair<std::vector<std::string>, std::string>> &parts,
                    const std::string &ending = "\r\n") {
    std::string body;
    for (const auto &[header, content] : parts) {
        body += "--" + boundary + ending;
        for (const std::string &line : header)
            body += line + ending;
        body += ending + content + ending;
    }
    return body + "--" + boundary + "--" + ending;
}

const std::string field_header = "Content-Disposition: form-data; name=\"text\"";
const std::string file_header =
    "Content-Disposition: form-data; name=\"image\"; filename=\"a.bin\"";

std::string file_body(const std::string &content) { return body_of({{{file_header}, content}}); }

File file_of(const std::string &content) { return {"image", "a.bin", "text/plain", content, true}; }

/** The file of a body that consists of one part with the given header lines. */
std::vector<File> files_of(const std::vector<std::string> &header) {
    Upload upload(body_of({{header, "content"}}));
    const corvel_upload_result result = upload.read();
    if (result != CORVEL_UPLOAD_DONE)
        return {{"", "", "", std::to_string(result), false}};
    return upload.files();
}

corvel_upload_result result_of(const std::string &body,
                               const corvel_upload_limits *limits = nullptr) {
    return Upload(body).read(limits);
}

corvel_upload_result result_of_header(const std::string &line) {
    return result_of(body_of({{{line}, "content"}}));
}

TEST(corvel_upload_read, PassesFieldsToTheRequestAndFilesToTheSink) {
    Upload upload(body_of({{{field_header}, "one"},
                           {{file_header, "Content-Type: image/png"}, "two"},
                           {{"Content-Disposition: form-data; name=other"}, ""}}));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.field("text"), "one");
    EXPECT_EQ(upload.field("other"), "");
    EXPECT_EQ(upload.field("image"), "(missing)");
    const std::vector<File> expected = {{"image", "a.bin", "image/png", "two", true}};
    EXPECT_EQ(upload.files(), expected);
}

TEST(corvel_upload_read, KeepsEveryByteOfAFile) {
    const std::string line = "\r\n--" + boundary;
    const std::vector<std::string> contents = {
        "",
        "\r\n",
        "\n",
        "\r",
        "\r\n\r\n",
        std::string("\0\r\n\0", 4),
        "Content-Type: text/html\r\n\r\nContent-Disposition: form-data; name=\"x\"",
        line + "X",
        line + "-",
        line + "-X",
        line + "\rX",
        "\n--" + boundary + "\n",
        "\n--" + boundary + "--",
        "--" + boundary + "X",
        "-",
        "--",
        "\r\n--",
        "\r\n\r\n--" + boundary.substr(1),
        line.substr(0, line.size() - 1) + line + "X" + line + "Y",
    };
    for (const std::string &content : contents) {
        Upload upload(file_body(content));
        EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE) << content;
        EXPECT_EQ(upload.files(), std::vector<File>{file_of(content)}) << content;
    }
}

TEST(corvel_upload_read, FindsTheBoundaryAtEveryPositionOfItsWindow) {
    for (std::size_t size = 16384 - 300; size <= 16384 + 50; ++size) {
        const std::string content(size, '\r');
        Upload upload(file_body(content));
        ASSERT_EQ(upload.read(), CORVEL_UPLOAD_DONE) << size;
        ASSERT_EQ(upload.files(), std::vector<File>{file_of(content)}) << size;
    }
}

TEST(corvel_upload_read, KeepsRandomBytesOfRandomSizes) {
    std::mt19937 random(1);
    for (int i = 0; i < 50; ++i) {
        std::string content(random() % 100000, '\0');
        for (char &byte : content)
            byte = "\r\n-x"[random() % 4];
        Upload upload(file_body(content));
        ASSERT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
        ASSERT_EQ(upload.files(), std::vector<File>{file_of(content)});
    }
}

TEST(corvel_upload_read, DoesNotDependOnThePiecesThatArrive) {
    const std::string content(3000, '\n');
    Upload upload(body_of({{{field_header}, "one"}, {{file_header}, content}}),
                  "multipart/form-data; boundary=" + boundary, StandardInput::Kind::pipe);
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.field("text"), "one");
    EXPECT_EQ(upload.files(), std::vector<File>{file_of(content)});
}

TEST(corvel_upload_read, AcceptsLinesThatEndWithALineFeedAlone) {
    const std::string content = "one\r\n--" + boundary + "x\r\ntwo\r";
    Upload upload(body_of({{{field_header}, "text\r"}, {{file_header}, content}}, "\n"));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.field("text"), "text\r");
    EXPECT_EQ(upload.files(), std::vector<File>{file_of(content)});
}

TEST(corvel_upload_read, SkipsWhatPrecedesTheFirstBoundaryAndFollowsTheLast) {
    Upload upload("preamble -- " + boundary + "\r\n" + file_body("x") + "epilogue\r\n--" +
                  boundary);
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.files(), std::vector<File>{file_of("x")});
}

TEST(corvel_upload_read, AcceptsSpacesAfterABoundary) {
    const std::string line = "--" + boundary;
    Upload upload(line + " \t\r\n" + file_header + "\r\n\r\nx\r\n" + line + "  \r\n" +
                  field_header + "\r\n\r\none\r\n" + line + "--");
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.files(), std::vector<File>{file_of("x")});
    EXPECT_EQ(upload.field("text"), "one");
}

TEST(corvel_upload_read, AcceptsAPartWithoutAnyContentLine) {
    const std::string line = "--" + boundary;
    Upload upload(line + "\r\n" + field_header + "\r\n\r\n" + line + "\r\n" + file_header +
                  "\r\n\r\n" + line + "--\r\n");
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.field("text"), "");
    EXPECT_EQ(upload.files(), std::vector<File>{file_of("")});
}

TEST(corvel_upload_read, AcceptsABodyWithoutParts) {
    EXPECT_EQ(result_of("--" + boundary + "--\r\n"), CORVEL_UPLOAD_DONE);
}

TEST(corvel_upload_read, ReadsAQuotedBoundaryAndOtherParameters) {
    for (const char *type : {"multipart/form-data; boundary=\"a b;c\"",
                             "Multipart/Form-Data ; charset=utf-8; Boundary=\"a b;c\" ; x=y",
                             "multipart/form-data;boundary=\"a b;\\\"c\""}) {
        const std::string text =
            std::string(type).find('\\') != std::string::npos ? "a b;\"c" : "a b;c";
        Upload upload("--" + text + "\r\n" + field_header + "\r\n\r\none\r\n--" + text + "--",
                      type);
        EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE) << type;
        EXPECT_EQ(upload.field("text"), "one") << type;
    }
}

TEST(corvel_upload_read, RefusesATypeWithoutAUsableBoundary) {
    for (const std::string &type :
         {std::string("multipart/form-data"), std::string("multipart/form-data; boundary="),
          std::string("multipart/form-data; boundary=\"\""),
          std::string("multipart/form-data; boundary=\"open"),
          std::string("multipart/form-data; boundary=a\tb"),
          "multipart/form-data; boundary=" + std::string(201, 'b')})
        EXPECT_EQ(Upload(file_body("x"), type).read(), CORVEL_UPLOAD_BAD_BOUNDARY) << type;
    EXPECT_EQ(Upload("--" + std::string(200, 'b') + "--",
                     "multipart/form-data; boundary=" + std::string(200, 'b'))
                  .read(),
              CORVEL_UPLOAD_DONE);
}

TEST(corvel_upload_read, ReadsTheHeaderInAnyFormThatClientsSend) {
    const std::vector<File> plain = {{"image", "a.bin", "text/plain", "content", true}};
    EXPECT_EQ(files_of({"content-disposition:form-data;name=image;filename=a.bin"}), plain);
    EXPECT_EQ(files_of({"Content-Disposition: form-data; filename=\"a.bin\"; name=\"image\""}),
              plain);
    EXPECT_EQ(
        files_of({"Content-Disposition: form-data;", " name=\"image\";", "\tfilename=\"a.bin\""}),
        plain);
    EXPECT_EQ(files_of({"X-Other: 1", "Content-Length: 7", file_header,
                        "Content-Transfer-Encoding: binary"}),
              plain);
    EXPECT_EQ(files_of({"Content-Disposition: form-data; name=\"image\"; filename=\"a.bin\";"}),
              plain);
    EXPECT_EQ(
        files_of({"Content-Disposition: FORM-DATA ; name = \"image\" ; filename = \"a.bin\" "}),
        plain);
    const std::vector<File> typed = {{"image", "a.bin", "image/png; q=1", "content", true}};
    EXPECT_EQ(files_of({"Content-Type:image/png; q=1  ", file_header}), typed);
    EXPECT_EQ(files_of({file_header, "Content-Type: image/png;", " q=1"})[0].type,
              "image/png;   q=1");
}

TEST(corvel_upload_read, TakesTheFilesNameWithoutDirectoriesAndUnescaped) {
    const auto name = [](const std::string &parameter) {
        return files_of({"Content-Disposition: form-data; name=\"image\"; " + parameter})[0].name;
    };
    EXPECT_EQ(name("filename=\"C:\\dir\\image.bin\""), "image.bin");
    EXPECT_EQ(name("filename=\"../../etc/passwd\""), "passwd");
    EXPECT_EQ(name("filename=\"..\""), "");
    EXPECT_EQ(name("filename=\"/\""), "");
    EXPECT_EQ(name("filename=\"a\\\"b;c.bin\""), "a\"b;c.bin");
    EXPECT_EQ(name("filename=\"a%22b.bin\""), "a%22b.bin");
    EXPECT_EQ(name("filename*=UTF-8''%e2%82%ac%20rates.bin"), "\xE2\x82\xAC rates.bin");
    EXPECT_EQ(name("filename*=utf-8'en'%e2%82%ac; filename=\"euro.bin\""), "\xE2\x82\xAC");
    EXPECT_EQ(name("filename=\"euro.bin\"; filename*=UTF-8''%2e%2e%2Fx"), "x");
    EXPECT_EQ(name("filename=\"plain.bin\"; filename*=ISO-8859-1''%e9"), "plain.bin");
    EXPECT_EQ(name("filename=\"plain.bin\"; filename*=broken"), "plain.bin");
    EXPECT_EQ(name("filename*=UTF-8''100%"), "100%");
}

TEST(corvel_upload_read, TakesAFileFieldWithoutASelectedFileAsAFileWithoutAName) {
    Upload upload(body_of({{{"Content-Disposition: form-data; name=\"image\"; filename=\"\"",
                             "Content-Type: application/octet-stream"},
                            ""}}));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    const std::vector<File> expected = {{"image", "", "application/octet-stream", "", true}};
    EXPECT_EQ(upload.files(), expected);
}

TEST(corvel_upload_read, RefusesAMalformedHeader) {
    for (const std::string &line : std::vector<std::string>{
             "", "no colon", "Content-Type: text/plain", "Content-Disposition: form-data",
             "Content-Disposition: form-data; filename=\"a\"",
             "Content-Disposition: attachment; name=\"a\"",
             "Content-Disposition: form-data; name=\"a",
             "Content-Disposition: form-data; name=\"a\\",
             "Content-Disposition: form-data; name=\"a\\\"",
             "Content-Disposition: form-data; name=\"",
             "Content-Disposition: form-data; name=a;; x=y", "Content-Disposition: form-data; name",
             "Content-Disposition: form-data; name=\"a\" x",
             "Content-Disposition: form-data name=\"a\"",
             "Content-Disposition: form-data; name=\"a\"; name=\"b\"",
             "Content-Disposition: form-data; name=\"a\"; filename*=UTF-8''%00",
             std::string("Content-Disposition: form-data; name=\"a\0\"", 41),
             field_header + "\r\n" + field_header,
             field_header + "\r\nContent-Transfer-Encoding: base64"})
        EXPECT_EQ(result_of_header(line), CORVEL_UPLOAD_MALFORMED) << line;
}

TEST(corvel_upload_read, RefusesABoundaryWithSomethingElseInItsFirstLine) {
    EXPECT_EQ(
        result_of("--" + boundary + "X\r\n" + field_header + "\r\n\r\nx\r\n--" + boundary + "--"),
        CORVEL_UPLOAD_MALFORMED);
    EXPECT_EQ(
        result_of("--" + boundary + "\rX\n" + field_header + "\r\n\r\nx\r\n--" + boundary + "--"),
        CORVEL_UPLOAD_MALFORMED);
}

TEST(corvel_upload_read, RefusesAFieldThatContainsANul) {
    EXPECT_EQ(result_of(body_of({{{field_header}, std::string("a\0b", 3)}})),
              CORVEL_UPLOAD_MALFORMED);
}

TEST(corvel_upload_read, ReportsABodyThatEndsBeforeItsLastBoundary) {
    const std::string body = body_of({{{field_header}, "one"}, {{file_header}, "two"}});
    const std::size_t needed = body.size() - 2; // the last line ending may be missing
    for (std::size_t size = 1; size < needed; ++size)
        ASSERT_EQ(result_of(body.substr(0, size)), CORVEL_UPLOAD_INCOMPLETE) << size;
    EXPECT_EQ(result_of(body.substr(0, needed)), CORVEL_UPLOAD_DONE);
}

TEST(corvel_upload_read, TakesAnEmptyBodyAsOneThatIsNotMultipart) {
    EXPECT_EQ(result_of(""), CORVEL_UPLOAD_NOT_MULTIPART);
}

TEST(corvel_upload_read, DoesNotEndAFileThatIsIncomplete) {
    const std::string body = file_body(std::string(40000, 'x'));
    Upload upload(body.substr(0, body.size() - 10));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_INCOMPLETE);
    ASSERT_EQ(upload.files().size(), 1U);
    EXPECT_FALSE(upload.files()[0].is_complete);
}

TEST(corvel_upload_read, AcceptsWhatIsExactlyAtEachLimit) {
    const std::string body = body_of({{{field_header}, "12345"}, {{file_header}, "1234567"}});
    const corvel_upload_limits exact = {2, file_header.size() + 4, 5, 7, body.size()};
    EXPECT_EQ(result_of(body, &exact), CORVEL_UPLOAD_DONE);

    corvel_upload_limits limits = exact;
    limits.parts_max = 1;
    EXPECT_EQ(result_of(body, &limits), CORVEL_UPLOAD_TOO_MANY_PARTS);
    limits = exact;
    limits.header_max = file_header.size() + 3;
    EXPECT_EQ(result_of(body, &limits), CORVEL_UPLOAD_HEADER_TOO_LARGE);
    limits = exact;
    limits.field_max = 4;
    EXPECT_EQ(result_of(body, &limits), CORVEL_UPLOAD_FIELD_TOO_LARGE);
    limits = exact;
    limits.file_max = 6;
    EXPECT_EQ(result_of(body, &limits), CORVEL_UPLOAD_FILE_TOO_LARGE);
    limits = exact;
    limits.total_max = body.size() - 10;
    EXPECT_EQ(result_of(body, &limits), CORVEL_UPLOAD_TOO_LARGE);
}

TEST(corvel_upload_read, HasTheDocumentedDefaultLimits) {
    const auto parts = [](std::size_t count) {
        return body_of({count, {{field_header}, "x"}});
    };
    EXPECT_EQ(result_of(parts(64)), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(result_of(parts(65)), CORVEL_UPLOAD_TOO_MANY_PARTS);
    const auto field = [](std::size_t size) {
        return body_of({{{field_header}, std::string(size, 'x')}});
    };
    EXPECT_EQ(result_of(field(16384)), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(result_of(field(16385)), CORVEL_UPLOAD_FIELD_TOO_LARGE);
    const auto header = [](std::size_t size) {
        const std::string other = "X: ";
        return body_of({{{field_header,
                          other + std::string(size - field_header.size() - 6 - other.size(), 'x')},
                         ""}});
    };
    EXPECT_EQ(result_of(header(8192)), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(result_of(header(8193)), CORVEL_UPLOAD_HEADER_TOO_LARGE);
    EXPECT_EQ(result_of(file_body(std::string(std::size_t{16} << 20, 'x'))), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(result_of(file_body(std::string((std::size_t{16} << 20) + 1, 'x'))),
              CORVEL_UPLOAD_FILE_TOO_LARGE);
    const auto whole = [](std::size_t size) {
        const std::string end = "--" + boundary + "--";
        return end + std::string(size - end.size(), 'x');
    };
    EXPECT_EQ(result_of(whole((std::size_t{16} << 20U) + 65536)), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(result_of(whole((std::size_t{16} << 20U) + 65537)), CORVEL_UPLOAD_TOO_LARGE);
}

TEST(corvel_upload_read, AcceptsHeadersOfAtMost16384BytesForAnyLimit) {
    corvel_upload_limits limits{};
    limits.header_max = 1000000;
    for (const std::size_t size : {16384U, 16385U}) {
        const std::string other = "X: " + std::string(size - field_header.size() - 9, 'x');
        Upload upload("--" + boundary + "\r\n" + field_header + "\r\n" + other +
                          "\r\n\r\none\r\n--" + boundary + "--",
                      "multipart/form-data; boundary=" + boundary, StandardInput::Kind::pipe);
        EXPECT_EQ(upload.read(&limits),
                  size == 16384 ? CORVEL_UPLOAD_DONE : CORVEL_UPLOAD_HEADER_TOO_LARGE);
    }
}

TEST(corvel_upload_read, ReadsNoPartOfABodyThatIsAnnouncedAsTooLarge) {
    const std::string body = file_body(std::string(100000, 'x'));
    corvel_upload_limits limits{};
    limits.total_max = body.size() - 1;
    Upload upload(body);
    EXPECT_EQ(upload.read(&limits), CORVEL_UPLOAD_TOO_LARGE);
    EXPECT_TRUE(upload.files().empty());
    char byte = 0;
    EXPECT_EQ(read(STDIN_FILENO, &byte, 1), 0);
}

TEST(corvel_upload_read, CountsWhatFollowsTheLastBoundaryOfABodyOfUnknownLength) {
    const std::string body = file_body("x") + std::string(100000, 'x');
    corvel_upload_limits limits{};
    limits.total_max = body.size();
    EXPECT_EQ(Upload(body, chunked).read(&limits), CORVEL_UPLOAD_DONE);
    limits.total_max = body.size() - 1;
    EXPECT_EQ(Upload(body, chunked).read(&limits), CORVEL_UPLOAD_TOO_LARGE);
}

TEST(corvel_upload_read, EndsWhenTheSinkRefuses) {
    const std::string body = body_of({{{file_header}, "one"}, {{file_header}, "two"}});
    Upload begin(body);
    begin.collector.accepts_files = false;
    EXPECT_EQ(begin.read(), CORVEL_UPLOAD_STOPPED);
    EXPECT_EQ(begin.files().size(), 1U);
    Upload data(body);
    data.collector.accepts_data = false;
    EXPECT_EQ(data.read(), CORVEL_UPLOAD_STOPPED);
    EXPECT_EQ(data.files().size(), 1U);
    EXPECT_FALSE(data.files()[0].is_complete);
    Upload end(body);
    end.collector.accepts_end = false;
    EXPECT_EQ(end.read(), CORVEL_UPLOAD_STOPPED);
    EXPECT_EQ(end.files().size(), 1U);
}

TEST(corvel_upload_read, DiscardsFilesWithoutASinkAndWithoutFunctions) {
    const std::string body = body_of({{{file_header}, "one"}, {{field_header}, "two"}});
    const corvel_upload_sink empty{};
    for (const corvel_upload_sink *sink :
         {static_cast<const corvel_upload_sink *>(nullptr), &empty}) {
        Upload upload(body);
        EXPECT_EQ(corvel_upload_read(upload.request(), nullptr, sink), CORVEL_UPLOAD_DONE);
        EXPECT_EQ(upload.field("text"), "two");
    }
}

TEST(corvel_upload_read, ReadsTheBodyToItsEndEvenIfItFails) {
    Upload upload("--" + boundary + "X" + std::string(100000, 'x'));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_MALFORMED);
    char byte = 0;
    EXPECT_EQ(read(STDIN_FILENO, &byte, 1), 0);
}

TEST(corvel_upload_read, ReadsABodyOnlyOnce) {
    Upload upload(file_body("x"));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_NOT_MULTIPART);
    EXPECT_EQ(corvel_upload_read(nullptr, nullptr, nullptr), CORVEL_UPLOAD_NOT_MULTIPART);
}

TEST(corvel_upload_read, PassesPiecesOfAtMost16384Bytes) {
    Upload upload(file_body(std::string(200000, 'x')));
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    EXPECT_LE(upload.collector.largest_piece, 16384U);
    EXPECT_GT(upload.collector.largest_piece, 8192U);
}

TEST(corvel_upload_read, ReportsEachFailedAllocation) {
    const std::string body = body_of({{{field_header}, "one"}, {{file_header}, "two"}});
    for_each_allocation_failure([&](AllocationTrial &trial) {
        Upload upload(body);
        const corvel_upload_result result =
            trial.run([&] { return corvel_upload_read(upload.request(), nullptr, nullptr); });
        EXPECT_EQ(result, trial.failed() ? CORVEL_UPLOAD_NO_MEMORY : CORVEL_UPLOAD_DONE);
    });
}

TEST(corvel_upload_save, WritesTheFileOfOneFieldIntoANewFileOfItsOwner) {
    const TemporaryDirectory directory;
    const std::string content = std::string(100000, '\0') + "\r\n--";
    Upload upload(body_of({{{"Content-Disposition: form-data; name=other; filename=b"}, "other"},
                           {{file_header}, content},
                           {{file_header}, "second"},
                           {{field_header}, "one"}}));
    EXPECT_EQ(upload.save("image", directory.path("image")), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(directory.read("image"), content);
    EXPECT_EQ(upload.field("text"), "one");
    struct stat status {};
    ASSERT_EQ(stat(directory.path("image").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(directory.names(), std::vector<std::string>{"image"});
}

TEST(corvel_upload_save, StoresTheNameOfTheFileAsTheFieldsValue) {
    const TemporaryDirectory directory;
    Upload upload(body_of({{{file_header}, "x"}, {{field_header}, "one"}}));
    EXPECT_EQ(upload.save("image", directory.path("image")), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(upload.field("image"), "a.bin");
    EXPECT_EQ(corvel_field_count(upload.request()), 2U);
}

TEST(corvel_upload_save, WritesAnEmptyFile) {
    const TemporaryDirectory directory;
    EXPECT_EQ(Upload(file_body("")).save("image", directory.path("image")), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(directory.read("image"), "");
}

TEST(corvel_upload_save, ReportsAFieldWithoutAFile) {
    const TemporaryDirectory directory;
    EXPECT_EQ(Upload(file_body("x")).save("other", directory.path("image")), CORVEL_UPLOAD_NO_FILE);
    const std::string unselected =
        body_of({{{"Content-Disposition: form-data; name=image; filename=\"\""}, ""}});
    EXPECT_EQ(Upload(unselected).save("image", directory.path("image")), CORVEL_UPLOAD_NO_FILE);
    EXPECT_TRUE(directory.names().empty());
}

TEST(corvel_upload_save, LeavesNoFileWhereTheUploadFails) {
    const TemporaryDirectory directory;
    const std::string body = file_body(std::string(50000, 'x'));
    EXPECT_EQ(Upload(body.substr(0, body.size() - 10)).save("image", directory.path("image")),
              CORVEL_UPLOAD_INCOMPLETE);
    corvel_upload_limits limits{};
    limits.file_max = 49999;
    EXPECT_EQ(Upload(body).save("image", directory.path("image"), &limits),
              CORVEL_UPLOAD_FILE_TOO_LARGE);
    EXPECT_EQ(Upload(body).save("image", directory.path("missing/image")), CORVEL_UPLOAD_NO_SPACE);
    for (unsigned long n = 1; n <= 2; ++n) {
        Upload upload(body);
        const FailCall full(call_write, n, ENOSPC);
        EXPECT_EQ(upload.save("image", directory.path("image")), CORVEL_UPLOAD_NO_SPACE);
    }
    EXPECT_TRUE(directory.names().empty());
}

TEST(corvel_upload_save, LeavesNoFileWhereTheProcessIsKilled) {
    const TemporaryDirectory directory;
    Upload upload(file_body("x"));
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
        stand_in_reached = [](stand_in_call call) {
            if (call == call_write)
                raise(SIGKILL);
        };
        upload.save("image", directory.path("image"));
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(directory.names().empty());
}

/** Expects that a file is saved although the first such call fails. */
void expect_saved_despite(stand_in_call call, int error) {
    const TemporaryDirectory directory;
    Upload upload(file_body("content"));
    const FailCall failed(call, 1, error);
    EXPECT_EQ(upload.save("image", directory.path("image")), CORVEL_UPLOAD_DONE);
    EXPECT_EQ(directory.read("image"), "content");
}

TEST(corvel_upload_save, ManagesWithoutUnnamedFiles) {
    expect_saved_despite(call_open, EOPNOTSUPP);
}

TEST(corvel_upload_save, RemovesANamedFileWhereTheUploadFails) {
    const TemporaryDirectory directory;
    Upload upload(file_body("content"));
    const FailCall unnamed(call_open, 1, EOPNOTSUPP);
    const FailCall full(call_write, 1, ENOSPC);
    EXPECT_EQ(upload.save("image", directory.path("image")), CORVEL_UPLOAD_NO_SPACE);
    EXPECT_TRUE(directory.names().empty());
}

TEST(corvel_upload_save, LeavesAFileAloneThatAppearsMeanwhile) {
    const TemporaryDirectory directory;
    static std::string path;
    path = directory.path("image");
    directory.write("image.other", "of another process");
    Upload upload(file_body("x"));
    stand_in_reached = [](stand_in_call call) {
        if (call == call_write)
            std::filesystem::copy_file(path + ".other", path);
    };
    const corvel_upload_result result = upload.save("image", path);
    stand_in_reached = nullptr;
    EXPECT_EQ(result, CORVEL_UPLOAD_NO_SPACE);
    EXPECT_EQ(directory.read("image"), "of another process");
}

TEST(corvel_upload_save, ReportsAFullDisk) {
    in_private_root([] {
        mount_small_disk("/mnt", 65536);
        EXPECT_EQ(Upload(file_body(std::string(100000, 'x'))).save("image", "/mnt/image"),
                  CORVEL_UPLOAD_NO_SPACE);
        EXPECT_NE(access("/mnt/image", F_OK), 0);
        EXPECT_EQ(Upload(file_body(std::string(10000, 'x'))).save("image", "/mnt/image"),
                  CORVEL_UPLOAD_DONE);
    });
}

TEST(corvel_upload_save, LeavesAFileOrLinkThatIsThereAlone) {
    const TemporaryDirectory directory;
    directory.write("image", "before");
    ASSERT_EQ(symlink(directory.path("target").c_str(), directory.path("link").c_str()), 0);
    EXPECT_EQ(Upload(file_body("x")).save("image", directory.path("image")),
              CORVEL_UPLOAD_NO_SPACE);
    EXPECT_EQ(Upload(file_body("x")).save("image", directory.path("link")), CORVEL_UPLOAD_NO_SPACE);
    EXPECT_EQ(directory.read("image"), "before");
    EXPECT_FALSE(directory.exists("target"));
}

TEST(corvel_upload_save, ContinuesAnInterruptedWrite) { expect_saved_despite(call_write, EINTR); }

TEST(corvel_upload_status, HasAStatusAndASentenceForEachResult) {
    const std::vector<std::pair<corvel_upload_result, int>> statuses = {
        {CORVEL_UPLOAD_DONE, 200},
        {CORVEL_UPLOAD_NOT_MULTIPART, 415},
        {CORVEL_UPLOAD_BAD_BOUNDARY, 400},
        {CORVEL_UPLOAD_MALFORMED, 400},
        {CORVEL_UPLOAD_INCOMPLETE, 400},
        {CORVEL_UPLOAD_TOO_MANY_PARTS, 413},
        {CORVEL_UPLOAD_HEADER_TOO_LARGE, 413},
        {CORVEL_UPLOAD_FIELD_TOO_LARGE, 413},
        {CORVEL_UPLOAD_FILE_TOO_LARGE, 413},
        {CORVEL_UPLOAD_TOO_LARGE, 413},
        {CORVEL_UPLOAD_STOPPED, 500},
        {CORVEL_UPLOAD_TIMEOUT, 408},
        {CORVEL_UPLOAD_NO_MEMORY, 503},
        {CORVEL_UPLOAD_NO_SPACE, 503},
        {CORVEL_UPLOAD_NO_FILE, 400}};
    for (const auto &[result, status] : statuses) {
        const char *complaint = nullptr;
        EXPECT_EQ(corvel_upload_status(result, &complaint), status) << result;
        EXPECT_EQ(*complaint == '\0', result == CORVEL_UPLOAD_DONE) << result;
    }
    EXPECT_EQ(corvel_upload_status(CORVEL_UPLOAD_DONE, nullptr), 200);
}

/** What process_file() prints and stores of an upload. */
struct Processed {
    std::string printed;
    std::vector<std::string> contents;
};

Processed processed(const std::string &body) {
    Processed result;
    prop_file files[CORVEL_UPLOAD_FILES] = {};
    const std::string delimiter = "--" + boundary;
    int count = 0;
    std::vector<char> bytes(body.begin(), body.end());
    result.printed = capture_stdout([&] {
        count =
            process_file(bytes.data(), static_cast<int>(bytes.size()), delimiter.c_str(), files);
    });
    for (int i = 0; i < count; ++i)
        result.contents.emplace_back(static_cast<const char *>(files[i].data), files[i].size);
    free_prop_file(files, count);
    return result;
}

/** The contents of the files that the kit reads of the same upload. */
std::vector<std::string> read_contents(const std::string &body) {
    Upload upload(body);
    EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE);
    std::vector<std::string> contents;
    for (const File &file : upload.files())
        contents.push_back(file.content);
    return contents;
}

using Contents = std::vector<std::string>;

TEST(UploadTrap, APartWithoutAContentTypeIsSkippedByTheInterfaceAlone) {
    const std::string body = body_of({{{file_header}, "content"}});
    const Processed interface = processed(body);
    EXPECT_EQ(interface.contents, Contents{});
    EXPECT_EQ(interface.printed, ("\r\n\r\ncontent\r\n--" + boundary).substr(0, 32) + "\n");
    EXPECT_EQ(read_contents(body), Contents{"content"});
}

TEST(UploadTrap, FurtherHeadersBelongToTheContentForTheInterfaceAlone) {
    const std::string body =
        body_of({{{file_header, "Content-Type: image/png", "Content-Length: 7"}, "content"}});
    EXPECT_EQ(processed(body).contents, Contents{"ntent-Length: 7\r\n\r\ncontent"});
    EXPECT_EQ(read_contents(body), Contents{"content"});
}

TEST(UploadTrap, AContentTypeInTheFileEndsItsStartForTheInterfaceAlone) {
    const std::string content = "first\r\nContent-Type: text/html\r\n\r\nrest";
    const std::string body = body_of({{{file_header, "Content-Type: image/png"}, content}});
    EXPECT_EQ(processed(body).contents, Contents{"rest"});
    EXPECT_EQ(read_contents(body), Contents{content});
}

TEST(UploadTrap, AFieldThatContainsFilenameIsPrintedByTheInterfaceAlone) {
    const std::string value = "filename=x\r\n<script src=//evil.example></script>";
    const std::string body = body_of({{{field_header}, value}});
    const Processed interface = processed(body);
    EXPECT_EQ(interface.contents, Contents{});
    EXPECT_EQ(interface.printed, value.substr(10, 32) + "\n");
    Upload upload(body);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(upload.read(), CORVEL_UPLOAD_DONE); }), "");
    EXPECT_EQ(upload.field("text"), value);
    EXPECT_TRUE(upload.files().empty());
}

} // namespace
