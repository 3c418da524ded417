/* SPDX-License-Identifier: MIT */
/*
 * A form on the page kit. The answer is the path and the fields as JSON, with the body if that is
 * JSON itself. A POST with the field "go" is answered by a redirection.
 */
#include <corvel_page.h>

static void show(corvel_answer *answer, const corvel_request *request) {
    const char *name;
    const char *value;
    corvel_json_open_object(answer, NULL);
    corvel_json_string(answer, "path", corvel_path(request));
    corvel_json_string(answer, "body", corvel_request_body(request, NULL));
    corvel_json_open_array(answer, "fields");
    for (size_t at = 0; corvel_field_pair(request, at, &name, &value); at++) {
        corvel_json_open_array(answer, NULL);
        corvel_json_string(answer, NULL, name);
        corvel_json_string(answer, NULL, value);
        corvel_json_close(answer);
    }
    corvel_json_close(answer);
    corvel_json_close(answer);
}

int main(void) {
    static corvel_request_rules rules; /* a member that is 0 has its default */
    corvel_request *request = corvel_request_begin();
    corvel_answer *answer = corvel_answer_new(request, NULL);
    int status;

    rules.methods = CORVEL_GET | CORVEL_POST;
    rules.types = CORVEL_FORM | CORVEL_JSON_TEXT;
    rules.pairs_max = 4096;
    rules.memory_max = 524288;
    status = corvel_request_read(request, &rules);
    if (status != CORVEL_HTTP_OK)
        corvel_answer_error(answer, status, corvel_request_complaint(request));
    else if (corvel_method(request) == CORVEL_POST && corvel_field(request, "go"))
        corvel_answer_redirect(answer, "/cgi-bin/form_page");
    else
        show(answer, request);
    corvel_answer_send(answer);
    corvel_answer_free(answer);
    corvel_request_free(request);
    return 0;
}
