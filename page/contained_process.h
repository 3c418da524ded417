// SPDX-License-Identifier: MIT
// A process without privileges that parses a request, and the records in which it passes on what it
// found.
//
//     ContainedProcess process(containment, body, body_max, strings_max);
//     if (process.is_child()) {
//         RecordWriter writer(process);
//         ... // parse
//         writer.send(RecordKind::query, name, value);
//         writer.end(outcome);
//     }
//     while (process.next())
//         ... // process.kind(), process.text(0)
//     ... // process.outcome()
#ifndef CORVEL_PAGE_CONTAINED_PROCESS_H
#define CORVEL_PAGE_CONTAINED_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <utility>

#include <corvel_page.h>

#include "page/body.h"
#include "page/output.h"
#include "support/descriptor.h"

namespace corvel {

/// What a record contains.
enum class RecordKind : std::uint32_t {
    cookie,   ///< A name and a value.
    query,    ///< A name and a value.
    form,     ///< A name and a value.
    part,     ///< The name of a part, its file's name or null, and its type.
    part_end, ///< Nothing.
    refusal,  ///< The reason for which the process could not begin, for the log. The last record.
    end,      ///< The outcome. The last record.
    content,  ///< Bytes of the part.
    body      ///< The bytes of the body.
};

/// The strings of a record follow it, each with its terminating NUL. Only those of a content or a
/// body, which consist of one, can contain other NULs.
struct RecordHead {
    RecordKind kind;
    std::uint32_t outcome;
    std::uint64_t body_left;
    std::uint32_t sizes[3]; ///< 0 for a null pointer.
};

/// In the parent: starts the process and receives its records, of which it believes nothing.
class ContainedProcess {
  public:
    /// Starts the process, which reads at most @p body_max bytes of the body. @p strings_max is the
    /// largest size of a record's strings.
    ContainedProcess(const corvel_containment &containment, Body &body, std::uint64_t body_max,
                     std::size_t strings_max);
    ContainedProcess(const ContainedProcess &) = delete;
    ContainedProcess &operator=(const ContainedProcess &) = delete;
    /// Ends the process.
    ~ContainedProcess();

    [[nodiscard]] bool is_child() const { return process_ == 0; }
    [[nodiscard]] const Body &body() const { return body_; }
    /// In the child: takes its privileges. Returns null or what is not possible, with errno set.
    [[nodiscard]] const char *confine() const;

    /// Receives a record. False after the last one.
    bool next();
    [[nodiscard]] RecordKind kind() const { return head_.kind; }
    /// A string of the record, or a null pointer.
    [[nodiscard]] const char *text(std::size_t index) const;
    [[nodiscard]] std::string_view bytes() const { return {strings_, head_.sizes[0]}; }
    /// Passes on the block of bytes(), after which there is a NUL.
    char *release() { return std::exchange(strings_, nullptr); }
    /// Ends the process because of its last record.
    void refuse_record();

    /// Whether the process has sent all of its records.
    [[nodiscard]] bool is_complete() const { return is_complete_; }
    [[nodiscard]] unsigned outcome() const { return head_.outcome; }

  private:
    bool start();
    bool receive(void *block, std::size_t size);
    bool receive_strings();
    bool fail(const char *reason);
    int reap();

    const corvel_containment &containment_;
    Body &body_;
    Body records_;
    Descriptor pipe_{-1};
    std::size_t strings_max_;
    pid_t parent_;
    pid_t process_ = -1;
    bool is_complete_ = false;
    RecordHead head_{};
    char *strings_ = nullptr;
    std::size_t size_ = 0;
};

/// In the child: gives up its privileges and sends records.
class RecordWriter {
  public:
    explicit RecordWriter(const ContainedProcess &process);

    void send(RecordKind kind, const char *first, const char *second, const char *third = nullptr);
    void send(RecordKind kind, std::string_view bytes);
    [[noreturn]] void end(unsigned outcome);

  private:
    void send_head(RecordKind kind, unsigned outcome, const std::string_view (&strings)[3]);

    StandardOutput output_;
    const Body &body_;
};

} // namespace corvel

#endif
