// lsctl: XML, written element by element, so that a document never stands in memory as a whole.
// Names are the caller's own words; whatever a value or a text holds is escaped here and nowhere
// else.
#ifndef LSCTL_TRACK_XML_H
#define LSCTL_TRACK_XML_H

#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

struct xml_attribute {
    const char *name;
    std::string value;
};
using xml_attributes = std::initializer_list<xml_attribute>;

// A number with so many digits behind its point.
std::string xml_number(double value, int digits);

// Writes to a stream and leaves it to the caller to look at its error mark. The constructor writes
// the declaration; the destructor closes what is open.
class xml_writer {
  public:
    explicit xml_writer(FILE *to);
    ~xml_writer();
    xml_writer(const xml_writer &) = delete;
    xml_writer &operator=(const xml_writer &) = delete;

    void open(const char *name, xml_attributes attributes = {}); // until its close
    void close();
    void text(const char *name, std::string_view inside, xml_attributes attributes = {});
    void empty(const char *name, xml_attributes attributes);

  private:
    void begin(const char *name, xml_attributes attributes);
    void escaped(std::string_view text);

    FILE *out;
    std::vector<const char *> opened;
};

#endif
