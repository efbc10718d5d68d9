// The benchmark's one table, as text or as JSON.
#pragma once

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace tovra::bench {

struct Figure {
    std::string section;
    std::string name;
    std::string unit;
    double value = 0;
    std::string reference; // what the value is compared with; empty for nothing
    double referenceValue = 0;

    // Empty when there is nothing to compare with, a reference of zero included.
    std::string ratio(const char* format) const
    {
        if (reference.empty() || !(referenceValue > 0)) return "";
        char text[32];
        std::snprintf(text, sizeof text, format, value / referenceValue);
        return text;
    }
};

struct Report {
    std::string title;
    std::vector<std::string> notes; // machine, date, run length
    std::vector<Figure> figures;

    void add(const std::string& section, const std::string& name, const std::string& unit, double value,
             const std::string& reference = "", double referenceValue = 0)
    {
        figures.push_back({section, name, unit, value, reference, referenceValue});
    }

    void printText() const
    {
        std::printf("%s\n", title.c_str());
        for (const std::string& note : notes) std::printf("%s\n", note.c_str());
        const char* row = "%-44s %-8s %12s   %-11s %12s %8s\n";
        std::printf("\n");
        std::printf(row, "figure", "unit", "tovra", "vs", "reference", "ratio");
        std::string section;
        for (const Figure& f : figures) {
            if (f.section != section) std::printf("\n[%s]\n", (section = f.section).c_str());
            std::printf(row, f.name.c_str(), f.unit.c_str(), number(f.value).c_str(), f.reference.c_str(),
                        f.reference.empty() ? "" : number(f.referenceValue).c_str(), f.ratio("%.2fx").c_str());
        }
    }

    void printJson() const
    {
        std::printf("{\n  \"title\": \"%s\",\n  \"notes\": [", title.c_str());
        for (std::size_t i = 0; i < notes.size(); ++i) std::printf("%s\"%s\"", i ? ", " : "", notes[i].c_str());
        std::printf("],\n  \"figures\": [\n");
        for (std::size_t i = 0; i < figures.size(); ++i) {
            const Figure& f = figures[i];
            const std::string ratio = f.ratio("%.4f");
            std::printf("    {\"section\": \"%s\", \"figure\": \"%s\", \"unit\": \"%s\", \"value\": %.6g, "
                        "\"reference\": \"%s\", \"reference_value\": %.6g, \"ratio\": %s}%s\n",
                        f.section.c_str(), f.name.c_str(), f.unit.c_str(), f.value, f.reference.c_str(),
                        f.referenceValue, ratio.empty() ? "null" : ratio.c_str(), i + 1 < figures.size() ? "," : "");
        }
        std::printf("  ]\n}\n");
    }

private:
    static std::string number(double value)
    {
        char text[32];
        const double size = std::fabs(value);
        std::snprintf(text, sizeof text, size >= 1000 || size == 0 ? "%.0f" : size >= 10 ? "%.1f" : "%.3f", value);
        return text;
    }
};

} // namespace tovra::bench
