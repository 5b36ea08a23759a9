// SPDX-License-Identifier: MIT
#include "signal/correlate.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace play
{
namespace
{

using Spectrum = std::vector<std::complex<float>>;

/// Mean square of both channels, in units of 16-bit samples: even dithered silence has more.
constexpr double kSilentMeanSquare = 0.1;
/// Bins weaker than this part of the strongest carry rounding noise rather than signal.
constexpr float kWeakestBin = 1e-6f;
/// Number of candidates: the highest peaks of each of the two correlations.
constexpr size_t kCandidatesEach = 64;
/// Least correlation coefficient of a match.
constexpr double kLeastLikeness = 0.8;
/// Rivals of the best match: places whose dissimilarity is at most floor + ratio x the best place's.
constexpr double kDissimilarityFloor = 0.002;
constexpr double kDissimilarityRatio = 3;
/// The whitened correlation decides between rivals. If the second highest peak reaches this part of the highest, the
/// place is ambiguous.
constexpr float kAmbiguousRatio = 0.7f;
/// Peaks of the two correlations this close together are one place.
constexpr size_t kSamePlace = 2;
/// Part of the samples that is faded in and out, so that the cut edges do not correlate.
constexpr double kHaystackFade = 0.02;
constexpr double kNeedleFade = 0.5;
/// In-place radix-2 transform; the size is a power of two.
void transform(Spectrum* data, bool inverse)
{
    size_t n = data->size();
    for (size_t i = 1, j = 0; i < n; i++) {
        size_t bit = n >> 1;
        for (; (j & bit) != 0; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap((*data)[i], (*data)[j]);
    }
    for (size_t length = 2; length <= n; length <<= 1) {
        double angle = (inverse ? 2 : -2) * M_PI / static_cast<double>(length);
        std::vector<std::complex<float>> turn(length / 2);
        for (size_t k = 0; k < turn.size(); k++)
            turn[k] = std::polar(1.0f, static_cast<float>(angle * static_cast<double>(k)));
        for (size_t start = 0; start < n; start += length) {
            for (size_t k = 0; k < length / 2; k++) {
                std::complex<float>& low = (*data)[start + k];
                std::complex<float>& high = (*data)[start + k + length / 2];
                std::complex<float> turned = high * turn[k];
                high = low - turned;
                low += turned;
            }
        }
    }
}

Spectrum spectrum_of(const std::vector<float>& samples, size_t size, double fade)
{
    Spectrum spectrum(size);
    double fading = std::max(1.0, fade * static_cast<double>(samples.size()));
    for (size_t i = 0; i < samples.size(); i++) {
        auto from_edge = static_cast<double>(std::min(i, samples.size() - 1 - i));
        double gain = from_edge < fading ? (1 - std::cos(M_PI * from_edge / fading)) / 2 : 1;
        spectrum[i] = samples[i] * static_cast<float>(gain);
    }
    transform(&spectrum, false);
    return spectrum;
}

bool is_silent(const std::vector<float>& samples)
{
    double sum = 0;
    for (float sample : samples)
        sum += static_cast<double>(sample) * sample;
    return sum < kSilentMeanSquare * static_cast<double>(samples.size());
}

struct Candidate {
    size_t place;
    float whitened; ///< height of the whitened correlation around it
    double likeness;
};

/// Places of the highest local maxima.
void add_peaks(const Spectrum& correlation, size_t places, std::vector<size_t>* peaks)
{
    std::vector<size_t> found;
    for (size_t i = 0; i < places; i++) {
        float here = correlation[i].real();
        bool over_left = i == 0 || here > correlation[i - 1].real();
        bool over_right = i + 1 == places || here >= correlation[i + 1].real();
        if (here > 0 && over_left && over_right)
            found.push_back(i);
    }
    size_t count = std::min(kCandidatesEach, found.size());
    auto higher = [&correlation](size_t a, size_t b) { return correlation[a].real() > correlation[b].real(); };
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(count), found.end(), higher);
    peaks->insert(peaks->end(), found.begin(), found.begin() + static_cast<std::ptrdiff_t>(count));
}

/// Correlation coefficient of the needle with the haystack at @p place: 1 for the same waveform.
double likeness_at(const std::vector<float>& haystack, const std::vector<float>& needle, size_t place)
{
    double product = 0;
    double hay_energy = 0;
    double needle_energy = 0;
    for (size_t i = 0; i < needle.size(); i++) {
        double h = haystack[place + i];
        double n = needle[i];
        product += h * n;
        hay_energy += h * h;
        needle_energy += n * n;
    }
    return hay_energy > 0 && needle_energy > 0 ? product / std::sqrt(hay_energy * needle_energy) : 0;
}

/// The same, at the best place within half a sample: a resampled sound need not fit at whole samples.
double likeness_near(const std::vector<float>& haystack, const std::vector<float>& needle, size_t place)
{
    double here = likeness_at(haystack, needle, place);
    if (place == 0 || place + needle.size() == haystack.size())
        return here;
    double before = likeness_at(haystack, needle, place - 1);
    double after = likeness_at(haystack, needle, place + 1);
    double bend = 2 * here - before - after;
    bool peak = here >= before && here >= after && bend > 0;
    return peak ? std::min(1.0, here + (after - before) * (after - before) / (8 * bend)) : here;
}

/// Two correlations: of the sounds as they are, and whitened, with all frequencies of the needle equally strong.
std::vector<Candidate> find_candidates(const std::vector<float>& haystack, const std::vector<float>& needle)
{
    size_t size = 1;
    while (size < haystack.size() + needle.size())
        size <<= 1;
    Spectrum plain = spectrum_of(haystack, size, kHaystackFade);
    Spectrum pin = spectrum_of(needle, size, kNeedleFade);
    Spectrum white(size);
    float strongest = 0;
    for (const std::complex<float>& bin : pin)
        strongest = std::max(strongest, std::abs(bin));
    for (size_t i = 0; i < size; i++) {
        float weight = std::abs(pin[i]) * std::abs(plain[i]);
        plain[i] *= std::conj(pin[i]);
        bool counts = std::abs(pin[i]) > strongest * kWeakestBin && weight > 0;
        white[i] = counts ? plain[i] / weight : 0;
    }
    transform(&plain, true);
    transform(&white, true);
    size_t places = haystack.size() - needle.size() + 1;
    std::vector<size_t> peaks;
    add_peaks(plain, places, &peaks);
    add_peaks(white, places, &peaks);
    std::sort(peaks.begin(), peaks.end());
    std::vector<Candidate> candidates;
    for (size_t peak : peaks) {
        Candidate found = {peak, 0, likeness_near(haystack, needle, peak)};
        for (size_t i = peak - std::min(peak, kSamePlace); i <= std::min(peak + kSamePlace, places - 1); i++)
            found.whitened = std::max(found.whitened, white[i].real());
        if (candidates.empty() || peak - candidates.back().place > kSamePlace)
            candidates.push_back(found);
        else if (found.likeness > candidates.back().likeness)
            candidates.back() = found;
    }
    return candidates;
}

/// The rival with the highest peak of the whitened correlation; nothing if the second one is nearly as high.
std::optional<size_t> choose(std::vector<Candidate> rivals)
{
    if (rivals.size() > 1) {
        std::partial_sort(rivals.begin(), rivals.begin() + 2, rivals.end(),
                          [](const Candidate& a, const Candidate& b) { return a.whitened > b.whitened; });
        if (rivals[1].whitened > rivals[0].whitened * kAmbiguousRatio)
            return std::nullopt;
    }
    return rivals.front().place;
}

} // namespace

std::optional<int64_t> find_in(const std::vector<float>& haystack, const std::vector<float>& needle)
{
    if (needle.empty() || needle.size() > haystack.size() || is_silent(needle) || is_silent(haystack))
        return std::nullopt;
    std::vector<Candidate> candidates = find_candidates(haystack, needle);
    double best = 0;
    for (const Candidate& candidate : candidates)
        best = std::max(best, candidate.likeness);
    if (best < kLeastLikeness)
        return std::nullopt;
    double most_dissimilar = kDissimilarityFloor + kDissimilarityRatio * (1 - best);
    std::vector<Candidate> rivals;
    for (const Candidate& candidate : candidates)
        if (1 - candidate.likeness <= most_dissimilar)
            rivals.push_back(candidate);
    std::optional<size_t> place = choose(std::move(rivals));
    return place ? std::optional<int64_t>(static_cast<int64_t>(*place)) : std::nullopt;
}

} // namespace play
