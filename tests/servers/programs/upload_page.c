/* SPDX-License-Identifier: MIT */
/*
 * An upload on the page kit. Its files become the new files 0, 1 and so on of a directory. The
 * answer is the fields, and the names, types and sizes of the files, as JSON.
 */
#include <corvel_page.h>

#include <signal.h>
#include <stdio.h>

#define DIRECTORY "../../received"

/** The files received so far, and the one that is being received. */
struct receiver {
    corvel_answer *answer;
    FILE *file;
    unsigned count;
    long long size;
};

static const char *path_of(unsigned number, char path[64]) {
    snprintf(path, 64, DIRECTORY "/%u", number);
    return path;
}

static bool begin(void *context, const corvel_part *part) {
    struct receiver *receiver = (struct receiver *)context;
    char path[64];
    corvel_json_open_object(receiver->answer, NULL);
    corvel_json_string(receiver->answer, "field", part->name);
    corvel_json_string(receiver->answer, "name", part->filename);
    corvel_json_string(receiver->answer, "type", part->type);
    receiver->size = 0;
    receiver->file = fopen(path_of(receiver->count, path), "wx");
    if (receiver->file)
        receiver->count++;
    return receiver->file != NULL;
}

static bool data(void *context, const void *bytes, size_t size) {
    struct receiver *receiver = (struct receiver *)context;
    receiver->size += (long long)size;
    return fwrite(bytes, 1, size, receiver->file) == size;
}

static bool end(void *context) {
    struct receiver *receiver = (struct receiver *)context;
    FILE *file = receiver->file;
    receiver->file = NULL;
    corvel_json_integer(receiver->answer, "size", receiver->size);
    corvel_json_close(receiver->answer);
    return fclose(file) == 0;
}

static void discard(struct receiver *receiver) {
    char path[64];
    if (receiver->file)
        fclose(receiver->file);
    while (receiver->count > 0)
        remove(path_of(--receiver->count, path));
}

static void receive(corvel_answer *answer, corvel_request *request) {
    struct receiver receiver = {answer, NULL, 0, 0};
    const corvel_upload_sink sink = {&receiver, begin, data, end};
    const char *complaint;
    const char *name;
    const char *value;
    int status;

    corvel_json_open_object(answer, NULL);
    corvel_json_open_array(answer, "files");
    status = corvel_upload_status(corvel_upload_read(request, NULL, &sink), &complaint);
    if (status != CORVEL_HTTP_OK) {
        discard(&receiver);
        corvel_answer_error(answer, status, complaint);
        return;
    }
    corvel_json_close(answer);
    corvel_json_open_object(answer, "fields");
    for (size_t at = 0; corvel_field_pair(request, at, &name, &value); at++)
        corvel_json_string(answer, name, value);
    corvel_json_close(answer);
    corvel_json_close(answer);
}

int main(void) {
    static corvel_request_rules rules; /* a member that is 0 has its default */
    corvel_request *request = corvel_request_begin();
    corvel_answer *answer = corvel_answer_new(request, NULL);
    int status;

    /* Apache sends it if the client disconnects. The upload then ends with a result of its own. */
    signal(SIGTERM, SIG_IGN);
    rules.methods = CORVEL_POST;
    rules.types = CORVEL_MULTIPART;
    status = corvel_request_read(request, &rules);
    if (status == CORVEL_HTTP_OK)
        receive(answer, request);
    else
        corvel_answer_error(answer, status, corvel_request_complaint(request));
    corvel_answer_send(answer);
    corvel_answer_free(answer);
    corvel_request_free(request);
    return 0;
}
