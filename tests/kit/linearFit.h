#ifndef KIT_LINEARFIT_H
#define KIT_LINEARFIT_H

#include <cmath>
#include <cstddef>
#include <vector>

namespace kit
{

/// The straight line through equally spaced samples with the least squares.
struct linearFit
{
    double mean = 0;
    double slope = 0;        ///< from one sample to the next
    double slopeError = 0;   ///< standard error of the slope
    std::size_t samples = 0; ///< fewer than three have no slope

    double growth() const { return slope * static_cast<double>(samples); }

    /// What of the growth cannot be an accident of samples that scatter: three standard errors less.
    double certainGrowth() const { return (slope - 3 * slopeError) * static_cast<double>(samples); }
};

inline linearFit fitOf(std::vector<double> const& samples)
{
    linearFit fit;
    fit.samples = samples.size();
    auto const count = static_cast<double>(samples.size());
    double const middle = (count - 1) / 2;
    for (double const sample : samples)
    {
        fit.mean += sample / count;
    }
    if (samples.size() < 3)
    {
        return fit;
    }
    double spread = 0;
    double product = 0;
    for (std::size_t each = 0; each < samples.size(); ++each)
    {
        double const place = static_cast<double>(each) - middle;
        spread += place * place;
        product += place * (samples[each] - fit.mean);
    }
    fit.slope = product / spread;
    double residual = 0;
    for (std::size_t each = 0; each < samples.size(); ++each)
    {
        double const place = static_cast<double>(each) - middle;
        double const distance = samples[each] - fit.mean - fit.slope * place;
        residual += distance * distance;
    }
    fit.slopeError = std::sqrt(residual / (count - 2) / spread);
    return fit;
}

} // namespace kit

#endif
