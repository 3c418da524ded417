// SPDX-License-Identifier: MIT
#ifndef CORVEL_PAGE_REQUEST_H
#define CORVEL_PAGE_REQUEST_H

#include <string_view>

#include <corvel_page.h>

#include "page/body.h"
#include "page/pairs.h"

namespace corvel {

/// What the modules of the kit use of a request beyond the public functions. All accept null.

struct NamedMethod {
    char name[7];
    unsigned char method;
};

/// The methods that a page can accept.
inline constexpr NamedMethod named_methods[] = {{"GET", CORVEL_GET},
                                                {"HEAD", CORVEL_GET},
                                                {"POST", CORVEL_POST},
                                                {"PUT", CORVEL_PUT},
                                                {"DELETE", CORVEL_DELETE}};

/// A variable of the CGI environment, such as "HTTP_IF_NONE_MATCH"; null if it is not set. Read at
/// the time of the call.
const char *environment(const corvel_request *request, const char *name);

/// The content type of the body with its parameters; empty if there is none.
const char *content_type(const corvel_request *request);

/// The body, for a reader that takes it as a stream; null if the request was not accepted as
/// multipart/form-data or its body has been read.
Body *body_of(corvel_request *request);

/// How the request is contained, with a value for each member; null if it is not.
const corvel_containment *containment_of(const corvel_request *request);

/// Reads and discards what is left of the body. Call it before an answer is sent: some web servers
/// deliver no answer of a program that has not read all of the body.
void discard_body(const corvel_request *request);

/// Adds a field that was read from a multipart form. Returns CORVEL_HTTP_OK, or the status to
/// answer with if the request's limits do not permit it.
int add_field(corvel_request *request, std::string_view name, std::string_view value);

/// The pairs of the form, or for a GET of the query; null for a null request.
const Pairs *fields_of(const corvel_request *request);

/// The pairs of the query; null for a null request.
const Pairs *query_of(const corvel_request *request);

/// The components of the path that a route has selected, as names; null for a null request.
const Pairs *path_parts_of(const corvel_request *request);

/// Stores a component of the path for corvel_path_part(). If memory is exhausted, the request is
/// refused.
void add_path_part(corvel_request *request, std::string_view component);

} // namespace corvel

#endif
