// lsctl: a track as lines, CSV, JSON, GPX 1.1, KML 2.2 and GeoJSON (RFC 7946).
//
// Documents are written an object or element at a time, so that they never stand in memory as a
// whole.
#include "track.h"
#include "xml.h"

#include <cinttypes>
#include <cmath>

#include <nlohmann/json.hpp>

namespace {

using json = nlohmann::ordered_json;

constexpr size_t PROGRESS_EVERY = 512; // points

void tell(const track_progress &progress, size_t done, size_t of) {
    if (done % PROGRESS_EVERY == 0)
        progress(static_cast<double>(done) / static_cast<double>(of));
}

// Without quotes; null in JSON, empty in CSV.
const char *fix_name(track_fix fix) {
    switch (fix) {
    case track_fix::fix_2d:
        return "2D";
    case track_fix::none:
        return "none";
    case track_fix::missing:
        break;
    }
    return nullptr;
}

std::string local_text(const track_point &point) {
    return std::string(point.line.substr(0, 19));
}

void put(std::string_view text, FILE *out) {
    std::fwrite(text.data(), 1, text.size(), out);
}

// Calls `write` with each stretch and counts the points behind it as done.
template <class write_fn>
void for_each_stretch(const track &all, int64_t gap_s, const track_progress &progress,
                      write_fn write) {
    for (const track_stretch &stretch : track_stretches(all, gap_s)) {
        write(stretch);
        progress(static_cast<double>(stretch.back()) / static_cast<double>(all.points.size()));
    }
}

std::string kml_place(const track_vertex &at) {
    return xml_number(at.longitude, 6) + "," + xml_number(at.latitude, 6);
}

void write_kml_point(const track_vertex &at, xml_writer &xml) {
    xml.open("Point");
    xml.text("coordinates", kml_place(at));
    xml.close();
}

void write_kml_mark(const char *name, const track_point &at, xml_writer &xml) {
    xml.open("Placemark");
    xml.text("name", name);
    xml.open("TimeStamp");
    xml.text("when", track_utc_text(at.utc));
    xml.close();
    xml.text("styleUrl", "#mark");
    write_kml_point({at.latitude, at.longitude, at.utc}, xml);
    xml.close();
}

void write_kml_piece(const track_piece &piece, xml_writer &xml) {
    if (piece.size() == 1) {
        write_kml_point(piece.front(), xml);
        return;
    }
    std::string places = "\n";
    for (const track_vertex &at : piece)
        places += kml_place(at) + "\n";
    xml.open("LineString");
    xml.text("tessellate", "1");
    xml.text("coordinates", places);
    xml.close();
}

// Degrees as the exported lines have them, to the sixth digit.
double rounded(double degrees) {
    return std::round(degrees * 1e6) / 1e6;
}

json point_json(const track_point &at) {
    const char *fix = fix_name(at.fix);
    return {{"time_utc", track_utc_text(at.utc)},
            {"time_local", local_text(at)},
            {"fix_type", fix == nullptr ? json() : json(fix)},
            {"latitude_deg", at.placed ? json(rounded(at.latitude)) : json()},
            {"longitude_deg", at.placed ? json(rounded(at.longitude)) : json()},
            {"horizontal_accuracy_m", std::round(at.accuracy_m * 100) / 100},
            {"satellites_used", at.satellites}};
}

// A line of two points or more, or a single point.
json geojson_feature(const track_piece &piece) {
    const bool line = piece.size() > 1;
    json places = json::array();
    json times = json::array();
    for (const track_vertex &at : piece) {
        places.push_back({rounded(at.longitude), rounded(at.latitude)});
        times.push_back(track_utc_text(at.utc));
    }
    json feature = {{"type", "Feature"},
                    {"geometry", {{"type", line ? "LineString" : "Point"}}},
                    {"properties", {{"start", times.front()}, {"end", times.back()}}}};
    feature["geometry"]["coordinates"] = line ? std::move(places) : places.front();
    feature["properties"]["times"] = std::move(times);
    return feature;
}

} // namespace

std::string track_line_text(const track_point &at) {
    return std::string(at.line) + "\n";
}

std::string track_line_json(const track_point &at) {
    json object = {{"class", "position"}};
    object.update(point_json(at));
    return object.dump() + "\n";
}

void track_write_lines(const track &all, int64_t, FILE *out, const track_progress &progress) {
    for (size_t i = 0; i < all.points.size(); ++i) {
        put(all.points[i].line, out);
        std::fputc('\n', out);
        tell(progress, i, all.points.size());
    }
}

void track_write_csv(const track &all, int64_t, FILE *out, const track_progress &progress) {
    put("time_utc,time_local,fix_type,latitude_deg,longitude_deg,horizontal_accuracy_m,"
        "satellites_used\n",
        out);
    for (size_t i = 0; i < all.points.size(); ++i) {
        const track_point &at = all.points[i];
        const char *fix = fix_name(at.fix);
        std::fprintf(out, "%s,%s,%s,", track_utc_text(at.utc).c_str(), local_text(at).c_str(),
                     fix == nullptr ? "" : fix);
        if (at.placed)
            std::fprintf(out, "%.6f,%.6f", at.latitude, at.longitude);
        else
            std::fputc(',', out);
        std::fprintf(out, ",%.2f,%" PRIu32 "\n", at.accuracy_m, at.satellites);
        tell(progress, i, all.points.size());
    }
}

void track_write_json(const track &all, int64_t, FILE *out, const track_progress &progress) {
    put("{\"positions\":[", out);
    for (size_t i = 0; i < all.points.size(); ++i) {
        put(i == 0 ? "\n" : ",\n", out);
        put(point_json(all.points[i]).dump(), out);
        tell(progress, i, all.points.size());
    }
    std::fprintf(out, "\n],\"skipped_lines\":%zu", all.bad_lines);
    if (!all.incomplete.empty())
        put(",\"error\":\"incomplete\",\"text\":" + json(all.incomplete).dump(), out);
    put("}\n", out);
}

void track_write_gpx(const track &all, int64_t gap_s, FILE *out, const track_progress &progress) {
    xml_writer xml(out);
    xml.open("gpx", {{"version", "1.1"},
                     {"creator", "lsctl"},
                     {"xmlns", "http://www.topografix.com/GPX/1/1"},
                     {"xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance"},
                     {"xsi:schemaLocation", "http://www.topografix.com/GPX/1/1 "
                                            "http://www.topografix.com/GPX/1/1/gpx.xsd"}});
    xml.open("metadata");
    xml.text("name", "Location history");
    xml.close();
    xml.open("trk");
    xml.text("name", "Location history");
    for_each_stretch(all, gap_s, progress, [&](const track_stretch &stretch) {
        xml.open("trkseg");
        for (const size_t index : stretch) {
            const track_point &at = all.points[index];
            // GPX knows the antimeridian as -180 only.
            const double longitude = at.longitude >= 180 ? -180.0 : at.longitude;
            xml.open("trkpt",
                     {{"lat", xml_number(at.latitude, 6)}, {"lon", xml_number(longitude, 6)}});
            xml.text("time", track_utc_text(at.utc));
            xml.text("cmt", "accuracy " + xml_number(at.accuracy_m, 2) + " m");
            xml.text("sat", std::to_string(at.satellites));
            xml.close();
        }
        xml.close();
    });
}

void track_write_kml(const track &all, int64_t gap_s, FILE *out, const track_progress &progress) {
    xml_writer xml(out);
    xml.open("kml", {{"xmlns", "http://www.opengis.net/kml/2.2"}});
    xml.open("Document");
    xml.text("name", "Location history");
    xml.open("Style", {{"id", "track"}});
    xml.open("LineStyle");
    xml.text("color", "ffb4501e");
    xml.text("width", "3");
    xml.close();
    xml.close();
    xml.open("Style", {{"id", "mark"}});
    xml.open("IconStyle");
    xml.text("scale", "1");
    xml.close();
    xml.close();
    const track_point *first = nullptr;
    const track_point *last = nullptr;
    for_each_stretch(all, gap_s, progress, [&](const track_stretch &stretch) {
        first = first == nullptr ? &all.points[stretch.front()] : first;
        last = &all.points[stretch.back()];
        const std::string begin = track_utc_text(all.points[stretch.front()].utc);
        xml.open("Placemark");
        xml.text("name", "From " + begin);
        xml.open("TimeSpan");
        xml.text("begin", begin);
        xml.text("end", track_utc_text(last->utc));
        xml.close();
        xml.text("styleUrl", "#track");
        xml.open("MultiGeometry");
        for (const track_piece &piece : track_pieces(all, stretch))
            write_kml_piece(piece, xml);
        xml.close();
        xml.close();
    });
    if (first != nullptr) {
        write_kml_mark("Start", *first, xml);
        write_kml_mark("End", *last, xml);
    }
}

void track_write_geojson(const track &all, int64_t gap_s, FILE *out,
                         const track_progress &progress) {
    put("{\"type\":\"FeatureCollection\",\"features\":[", out);
    const char *before = "\n";
    for_each_stretch(all, gap_s, progress, [&](const track_stretch &stretch) {
        for (const track_piece &piece : track_pieces(all, stretch)) {
            put(before, out);
            put(geojson_feature(piece).dump(), out);
            before = ",\n";
        }
    });
    put("\n]}\n", out);
}
