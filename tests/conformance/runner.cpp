#include "runner.h"

namespace conformance
{
namespace
{

bool isMeant(testVector const& vector, std::string const& only)
{
    return vector.name.find(only) != std::string::npos;
}

void count(verdict const& result, tally& counted)
{
    switch (result.result)
    {
    case verdict::passed:
        ++counted.passed;
        break;
    case verdict::failed:
        ++counted.failed;
        break;
    case verdict::skipped:
        ++counted.skipped;
        break;
    }
}

void show(std::string const& name, verdict const& result, std::ostream& out)
{
    switch (result.result)
    {
    case verdict::passed:
        out << "  passed   " << name << std::endl;
        break;
    case verdict::failed:
        out << "  FAILED   " << name << "\n           " << result.reason << std::endl;
        break;
    case verdict::skipped:
        out << "  skipped  " << name << ": " << result.reason << std::endl;
        break;
    }
}

} // namespace

tally playFiles(std::vector<vectorFile> const& files, std::string const& only, subject& with, duration patience,
                std::ostream& out)
{
    tally counted;
    for (vectorFile const& file : files)
    {
        out << file.path << '\n';
        for (testVector const& vector : file.vectors)
        {
            if (isMeant(vector, only))
            {
                verdict const result = play(vector, file.path, with, patience);
                show(vector.name, result, out);
                count(result, counted);
            }
        }
    }
    out << counted.passed << " passed, " << counted.failed << " failed, " << counted.skipped << " skipped\n";
    return counted;
}

void listFiles(std::vector<vectorFile> const& files, std::string const& only, std::ostream& out)
{
    for (vectorFile const& file : files)
    {
        out << file.path << '\n';
        for (testVector const& vector : file.vectors)
        {
            if (isMeant(vector, only))
            {
                out << "  " << vector.name << '\n';
            }
        }
    }
}

} // namespace conformance
