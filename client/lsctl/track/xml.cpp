// lsctl: XML.
#include "xml.h"

#include <array>

std::string xml_number(double value, int digits) {
    std::array<char, 400> text{}; // the largest double has 309 digits before its point
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

xml_writer::xml_writer(FILE *to) : out(to) {
    std::fputs("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", out);
}

xml_writer::~xml_writer() {
    while (!opened.empty())
        close();
    std::fputc('\n', out);
}

void xml_writer::open(const char *name, xml_attributes attributes) {
    begin(name, attributes);
    std::fputc('>', out);
    opened.push_back(name);
}

void xml_writer::close() {
    std::fprintf(out, "\n</%s>", opened.back());
    opened.pop_back();
}

void xml_writer::text(const char *name, std::string_view inside, xml_attributes attributes) {
    begin(name, attributes);
    std::fputc('>', out);
    escaped(inside);
    std::fprintf(out, "</%s>", name);
}

void xml_writer::empty(const char *name, xml_attributes attributes) {
    begin(name, attributes);
    std::fputs("/>", out);
}

void xml_writer::begin(const char *name, xml_attributes attributes) {
    std::fprintf(out, "\n<%s", name);
    for (const xml_attribute &each : attributes) {
        std::fprintf(out, " %s=\"", each.name);
        escaped(each.value);
        std::fputc('"', out);
    }
}

void xml_writer::escaped(std::string_view text) {
    for (const char c : text) {
        switch (c) {
        case '&':
            std::fputs("&amp;", out);
            break;
        case '<':
            std::fputs("&lt;", out);
            break;
        case '>':
            std::fputs("&gt;", out);
            break;
        case '"':
            std::fputs("&quot;", out);
            break;
        default:
            std::fputc(c, out);
        }
    }
}
