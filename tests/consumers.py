# SPDX-License-Identifier: MIT
"""Programs outside of the source tree that use an installed library."""

# Allocates in the library and frees there; the exit status is 0 if the value is read back.
PROGRAM = r"""
#include <corvel.h>

int main(void)
{
    prop_entry row[1];
    char value[256];
    int count = ins_prop("name", "\"value\"", row, 0);
    int differs = !get_prop("name", value, row, count) || STRCMP(value, "value");
    free_prop(row, count);
    return differs;
}
"""

# A page of the kit that also calls libcorvel, in the common subset of C99 and C++17.
PAGE = r"""
#include <corvel.h>
#include <corvel_page.h>

int main(void)
{
    corvel_request *const request = corvel_request_begin();
    corvel_answer *const answer = corvel_answer_new(request, NULL);
    const int status = corvel_request_read(request, NULL);
    const char *const name = corvel_field(request, "name");
    if (status != CORVEL_HTTP_OK || name == NULL || STRCMP(name, "") == 0)
        corvel_answer_error(answer, CORVEL_HTTP_BAD_REQUEST, corvel_request_complaint(request));
    else
        corvel_json_string(answer, NULL, name);
    corvel_answer_send(answer);
    corvel_answer_free(answer);
    corvel_request_free(request);
    return 0;
}
"""
REQUEST = {"REQUEST_METHOD": "GET", "QUERY_STRING": "name=a%22b"}
LANGUAGES = {"c": "cc -std=c99", "cpp": "c++ -std=c++17"}

CONSUMER = """
cmake_minimum_required(VERSION 3.20)
project(consumer LANGUAGES C CXX)
find_package(corvel 1.0 REQUIRED)
file(GLOB source program.*)
foreach(library IN ITEMS corvel corvel_static corvel_page corvel_page_static)
  add_executable(with_${library} EXCLUDE_FROM_ALL ${source})
  target_link_libraries(with_${library} PRIVATE corvel::${library})
endforeach()
"""


def assert_answers(answer):
    """The output of PAGE must be the field of REQUEST as JSON."""
    assert answer.startswith("Status: 200 OK\n") and answer.endswith('\n\n"a\\"b"'), answer
