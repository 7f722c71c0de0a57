#include "Models.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

#include <dlib/serialize.h>

#include "Predictor.h"
#include "Scanners.h"
#include "Tuning.h"

namespace KVOAI::kvodnnl {

namespace {

const char* const kModelPathVariable = "KVODNNL_LANDMARK_MODEL";
// OpenCV's LBP frontal face cascade (Debian's opencv-data); it proposes the
// small faces, which the HOG detector then confirms.
const char* const kCascadePath = "/usr/share/opencv4/lbpcascades/lbpcascade_frontalface.xml";

struct ModelStore {
    std::mutex mutex;
    std::unique_ptr<HogDetector> hog;
    std::unique_ptr<HogDetector> hogLevel;
    std::unique_ptr<HogDetector> hogNear;
    bool cascadeTried = false;
    std::string cascadeText;  // empty when the cascade can't be read
    std::vector<std::unique_ptr<Scanners>> idle;
    std::map<std::string, std::shared_ptr<const Predictor>> predictors;
};

ModelStore& modelStore()
{
    static ModelStore* store = new ModelStore;  // outlives every detector
    return *store;
}

// Reads the HOG detector and the cascade once; the caller holds the lock.
void loadScannerModels(ModelStore& store)
{
    if (!store.hog) {
        store.hog = std::make_unique<HogDetector>(dlib::get_frontal_face_detector());
        std::vector<HogDetector::feature_vector_type> weights;
        for (unsigned long i = 0; i < store.hog->num_detectors(); ++i)
            weights.push_back(store.hog->get_w(i));
        const auto levels = [&](unsigned long count) {
            HogDetector::image_scanner_type scanner;
            scanner.copy_configuration(store.hog->get_scanner());
            scanner.set_max_pyramid_levels(count);
            return std::make_unique<HogDetector>(scanner, store.hog->get_overlap_tester(), weights);
        };
        store.hogLevel = levels(1);
        store.hogNear = levels(kNearLevels);
    }
    if (!store.cascadeTried) {
        store.cascadeTried = true;
        std::ifstream file(kCascadePath, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        store.cascadeText = text.str();
        if (store.cascadeText.empty())
            std::fprintf(stderr, "kvodnnl: cannot read the face cascade %s; faces smaller than %d pixels will "
                                 "not be found\n",
                         kCascadePath, static_cast<int>(kHogWindow));
    }
}

std::unique_ptr<Scanners> makeScanners(ModelStore& store)
{
    auto made = std::make_unique<Scanners>(
        Scanners{*store.hog, *store.hogLevel, *store.hogNear, cv::CascadeClassifier(), false});
    if (!store.cascadeText.empty()) {
        // read() reports whether the cascade was understood; empty() stays
        // true for a cascade read this way.
        cv::FileStorage storage(store.cascadeText, cv::FileStorage::READ | cv::FileStorage::MEMORY);
        made->hasCascade = made->cascade.read(storage.getFirstTopLevelNode());
    }
    return made;
}

}  // namespace

void prepareScanners(size_t count)
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    loadScannerModels(store);
    while (store.idle.size() < count)
        store.idle.push_back(makeScanners(store));
}

ScannerLease::ScannerLease()
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    if (store.idle.empty()) {
        loadScannerModels(store);
        scanners_ = makeScanners(store);
    } else {
        scanners_ = std::move(store.idle.back());
        store.idle.pop_back();
    }
}

ScannerLease::~ScannerLease()
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    store.idle.push_back(std::move(scanners_));
}

std::shared_ptr<const Predictor> loadPredictor(const std::string& path)
{
    ModelStore& store = modelStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    auto found = store.predictors.find(path);
    if (found != store.predictors.end())
        return found->second;

    std::shared_ptr<Predictor> predictor;
    try {
        auto loaded = std::make_shared<Predictor>();
        dlib::deserialize(path) >> *loaded;
        if (loaded->num_parts() == 68)
            predictor = loaded;
        else
            std::fprintf(stderr, "kvodnnl: landmark model %s has %lu points, 68 needed; no faces will be found\n",
                         path.c_str(), static_cast<unsigned long>(loaded->num_parts()));
    } catch (const std::exception& e) {
        std::string reason = e.what();
        const size_t cut = reason.find('\n');
        if (cut != std::string::npos)
            reason.resize(cut);
        std::fprintf(stderr, "kvodnnl: cannot read the landmark model %s (%s); no faces will be found\n",
                     path.c_str(), reason.c_str());
    }
    store.predictors[path] = predictor;
    return predictor;
}

std::string modelPathFromEnvironment()
{
    const char* path = std::getenv(kModelPathVariable);
    return (path && *path) ? std::string(path) : std::string(kDefaultModelPath);
}

}  // namespace KVOAI::kvodnnl
