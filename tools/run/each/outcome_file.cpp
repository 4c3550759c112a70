#include "tools/run/each/outcome_file.h"

#include "tools/report/json_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <simdjson.h>
#include <stdexcept>

namespace {

using Json = simdjson::dom::element;

std::string text_in(Json line, const char *member) {
    std::string_view text;
    if (line[member].get(text) != simdjson::SUCCESS)
        throw std::runtime_error(std::string("no ") + member);
    return std::string(text);
}

std::vector<std::string> texts_in(Json line, const char *member) {
    std::vector<std::string> texts;
    simdjson::dom::array array;
    if (line[member].get(array) != simdjson::SUCCESS)
        throw std::runtime_error(std::string("no ") + member);
    for (const Json element : array)
        if (std::string_view text; element.get(text) == simdjson::SUCCESS)
            texts.emplace_back(text);
    return texts;
}

OutcomeKind kind_named(std::string_view name) {
    const auto known = std::ranges::find(outcome_names, name);
    if (known == outcome_names.end())
        throw std::runtime_error("no such outcome");
    return static_cast<OutcomeKind>(known - outcome_names.begin());
}

Outcome outcome_in(Json line) {
    Outcome outcome{.stack = text_in(line, "stack"),
                    .process = text_in(line, "process"),
                    .failure = text_in(line, "failure"),
                    .failed = texts_in(line, "failed"),
                    .message = text_in(line, "message")};
    simdjson::dom::array happened;
    if (line["happened"].get(happened) != simdjson::SUCCESS || happened.size() == 0)
        throw std::runtime_error("no happened");
    for (const Json happening : happened)
        outcome.happened.push_back({kind_named(text_in(happening, "outcome")),
                                    text_in(happening, "what"), texts_in(happening, "chain")});
    return outcome;
}

void write_texts(JsonWriter &json, const char *name, const std::vector<std::string> &texts) {
    json.open(name, '[');
    for (const std::string &text : texts)
        json.value(std::string_view(text));
    json.close(']');
}

// A line with its end.
template <class Write> std::string line_of(Write write) {
    std::string line;
    const Put put = [&line](std::string_view piece) { line += piece; };
    {
        JsonWriter json(put);
        json.open('{');
        write(json);
        json.close('}');
    }
    return line;
}

std::string head_of(const std::vector<std::string> &command) {
    return line_of([&](JsonWriter &json) {
        json.member("kind", "fail-each");
        write_texts(json, "command", command);
    });
}

// None of a line that is damaged, or cut off as the last one may be: that run is done again.
std::optional<Outcome> outcome_in_line(const std::string &line, simdjson::dom::parser &parser) {
    Json json;
    if (parser.parse(line).get(json) != simdjson::SUCCESS)
        return {};
    try {
        return outcome_in(json);
    } catch (const std::runtime_error &) {
        return {};
    }
}

// Of the lines that are whole, returns the text.
std::string read_outcomes(const std::string &path, const std::string &head,
                          std::vector<Outcome> &outcomes) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line))
        throw std::runtime_error("there is nothing to resume in " + path);
    if (line + '\n' != head)
        throw std::runtime_error(path + " is of another command");
    std::string text;
    simdjson::dom::parser parser;
    while (std::getline(file, line))
        if (const std::optional<Outcome> outcome = outcome_in_line(line, parser)) {
            outcomes.push_back(*outcome);
            text += line + '\n';
        }
    return text;
}

} // namespace

OutcomeFile::OutcomeFile(const std::string &path, const std::vector<std::string> &command, bool goes_on)
    : path_(path) {
    const std::string head = head_of(command), unfinished = path + ".new";
    const std::string lines = goes_on ? read_outcomes(path, head, earlier_) : "";
    file_ = File(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666));
    put(head + lines);
    // Until then, what there was stands.
    if (rename(unfinished.c_str(), path.c_str()) != 0)
        throw std::runtime_error(path + ": " + strerror(errno));
}

void OutcomeFile::put(const std::string &line) const {
    const ssize_t written = write(file_.descriptor(), line.data(), line.size());
    if (written !=
        static_cast<ssize_t>(line.size())) // a part of it fits on a disk that is about to be full
        throw std::runtime_error(path_ + ": " + strerror(written < 0 ? errno : ENOSPC));
}

void OutcomeFile::add(const Outcome &outcome, const std::string &repeating) const {
    put(line_of([&](JsonWriter &json) {
        json.member("kind", "outcome");
        json.open("happened", '[');
        for (const Happening &happening : outcome.happened) {
            json.open('{');
            json.member("outcome", outcome_names[static_cast<size_t>(happening.kind)]);
            json.member("what", std::string_view(happening.what));
            write_texts(json, "chain", happening.trace);
            json.close('}');
        }
        json.close(']');
        json.member("process", std::string_view(outcome.process));
        json.member("failure", std::string_view(outcome.failure));
        write_texts(json, "failed", outcome.failed);
        json.member("message", std::string_view(outcome.message));
        json.member("stack", std::string_view(outcome.stack));
        json.member("repeat", std::string_view(repeating));
    }));
}
