/* SPDX-License-Identifier: MIT */
/* Restores, reads and changes settings files on the device. */
#include <corvel_page.h>

#include <stdio.h>
#include <string.h>

enum exit_status { succeeded = 0, failed = 1, wrong_usage = 2 };

static const char help[] =
    "usage: corvel-settings recover [-s SEPARATOR] FILE...\n"
    "       corvel-settings get [-s SEPARATOR] FILE NAME\n"
    "       corvel-settings set [-s SEPARATOR] FILE NAME=VALUE...\n"
    "       corvel-settings delete [-s SEPARATOR] FILE NAME...\n"
    "\n"
    "  recover  restore files whose writers were interrupted; for the device's start\n"
    "  get      print the value of a setting\n"
    "  set      set settings\n"
    "  delete   delete settings\n"
    "\n"
    "  -s SEPARATOR  what is between name and value in the files that follow: '=',\n"
    "                'space' or 'tab'; the default is '='\n"
    "  -h, --help    print this text\n"
    "\n"
    "Exit status: 0 on success, 1 if a file or a setting is missing, damaged or\n"
    "refused, 2 if the usage is wrong.\n";

static int complain(const char *subject, const char *reason) {
    fprintf(stderr, "corvel-settings: %s: %s\n", subject, reason);
    return failed;
}

static int refuse_usage(const char *subject, const char *reason) {
    complain(subject, reason);
    return wrong_usage;
}

/* Reads the options before a file. Returns the arguments after them; null if they are wrong. */
static char **skip_options(char **arguments, char *separator) {
    while (*arguments && strcmp(*arguments, "-s") == 0) {
        const char *const word = arguments[1];
        if (word && strcmp(word, "=") == 0)
            *separator = '=';
        else if (word && strcmp(word, "space") == 0)
            *separator = ' ';
        else if (word && strcmp(word, "tab") == 0)
            *separator = '\t';
        else
            return NULL;
        arguments += 2;
    }
    return arguments;
}

/* Recovers one file and reports what is not as it should be. */
static int recover_file(const char *path, char separator) {
    const corvel_settings_result result = corvel_settings_recover(path, separator);
    const char *complaint = "";
    corvel_settings_status(result, &complaint);
    if (result == CORVEL_SETTINGS_RESTORED)
        printf("%s: restored\n", path);
    return result < 0 ? complain(path, complaint) : succeeded;
}

/* A file that cannot be recovered does not keep the others from it. */
static int recover(char **arguments) {
    char separator = '=';
    int status = succeeded;
    do {
        arguments = skip_options(arguments, &separator);
        if (!arguments || !*arguments)
            return refuse_usage("recover", "a file or a separator is missing");
        if (recover_file(*arguments, separator) != succeeded)
            status = failed;
    } while (*++arguments);
    return status;
}

static int get(corvel_settings *settings, const char *path, char **arguments) {
    const char *value = NULL;
    if (arguments[1])
        return refuse_usage("get", "too many arguments");
    value = corvel_setting(settings, arguments[0]);
    if (!value)
        return complain(path, "no such setting");
    return puts(value) < 0 ? failed : succeeded;
}

static int save(corvel_settings *settings, const char *path) {
    const char *complaint = "";
    const corvel_settings_result result = corvel_settings_save(&settings, 1);
    corvel_settings_status(result, &complaint);
    return result < 0 ? complain(path, complaint) : succeeded;
}

/* Separates "NAME=VALUE" in place. */
static int set(corvel_settings *settings, const char *path, char **arguments) {
    for (; *arguments; ++arguments) {
        char *const equals = strchr(*arguments, '=');
        const char *complaint = NULL;
        if (!equals)
            return refuse_usage(*arguments, "not NAME=VALUE");
        *equals = '\0';
        complaint = corvel_setting_set(settings, *arguments, equals + 1);
        if (complaint)
            return complain(*arguments, complaint);
    }
    return save(settings, path);
}

static int delete (corvel_settings *settings, const char *path, char **arguments) {
    for (; *arguments; ++arguments) {
        const char *const complaint = corvel_setting_remove(settings, *arguments);
        if (complaint)
            return complain(*arguments, complaint);
    }
    return save(settings, path);
}

/* Loads a file and applies a command to it. */
static int with_settings(int (*command)(corvel_settings *, const char *, char **),
                         char **arguments) {
    char separator = '=';
    const char *complaint = "";
    corvel_settings *settings = NULL;
    corvel_settings_result result = CORVEL_SETTINGS_SAVED;
    int status = failed;
    arguments = skip_options(arguments, &separator);
    if (!arguments || !arguments[0] || !arguments[1])
        return refuse_usage("usage", "a file, a name or a separator is missing");
    settings = corvel_settings_load(arguments[0], separator, &result);
    corvel_settings_status(result, &complaint);
    status = settings ? command(settings, arguments[0], arguments + 1)
                      : complain(arguments[0], complaint);
    corvel_settings_free(settings);
    return status;
}

int main(int count, char **arguments) {
    const char *const command = count > 1 ? arguments[1] : "";
    if (strcmp(command, "-h") == 0 || strcmp(command, "--help") == 0)
        return fputs(help, stdout) < 0 ? failed : succeeded;
    if (strcmp(command, "recover") == 0)
        return recover(arguments + 2);
    if (strcmp(command, "get") == 0)
        return with_settings(get, arguments + 2);
    if (strcmp(command, "set") == 0)
        return with_settings(set, arguments + 2);
    if (strcmp(command, "delete") == 0)
        return with_settings(delete, arguments + 2);
    fputs(help, stderr);
    return wrong_usage;
}
