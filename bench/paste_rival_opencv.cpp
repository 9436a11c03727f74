// The same paste out of OpenCV's parts, in float, on one thread and on the placement's bounding
// box only.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "paste_scene.h"

namespace {

cv::Rect boundingBox(const float* M) {
    const float side = PasteScene::kSide;
    std::vector<cv::Point2f> corners;
    for (const cv::Point2f p : {cv::Point2f(-4, -4), cv::Point2f(side + 3, -4),
                                cv::Point2f(-4, side + 3), cv::Point2f(side + 3, side + 3)}) {
        corners.emplace_back(M[0] * p.x + M[1] * p.y + M[2], M[3] * p.x + M[4] * p.y + M[5]);
    }
    return cv::boundingRect(corners) & cv::Rect(0, 0, PasteScene::kWidth, PasteScene::kHeight);
}

void opencvFloat(benchmark::State& state) {
    cv::setNumThreads(1);
    PasteScene scene(static_cast<double>(state.range(0)) / 100);
    constexpr int kSide = PasteScene::kSide;
    std::vector<cv::Mat> planes;
    for (int c = 0; c < 3; ++c) {
        planes.emplace_back(kSide, kSide, CV_32F, scene.crop.data() + c * kSide * kSide);
    }
    cv::Mat mask;
    cv::Mat(kSide, kSide, CV_8U, scene.mask.data()).convertTo(mask, CV_32F, 1.0 / 255);
    cv::Mat frame(PasteScene::kHeight, PasteScene::kWidth, CV_8UC3, scene.frame.data());
    const cv::Rect box = boundingBox(scene.M);
    cv::Matx23f M(scene.M);
    M(0, 2) -= static_cast<float>(box.x);
    M(1, 2) -= static_cast<float>(box.y);
    cv::Mat crop, blurred, warped, cover, under;
    for (auto _ : state) {
        cv::merge(planes, crop);
        crop *= 255;
        cv::GaussianBlur(crop, blurred, {13, 13}, 2, 2, cv::BORDER_REFLECT_101);
        cv::addWeighted(crop, 2.3, blurred, -1.3, 0, crop);
        cv::min(crop, cv::Scalar::all(255), crop);
        cv::max(crop, cv::Scalar::all(0), crop);
        cv::warpAffine(crop, warped, M, box.size(), cv::INTER_LANCZOS4);
        cv::warpAffine(mask, cover, M, box.size(), cv::INTER_LINEAR);
        cv::Mat target = frame(box);
        target.convertTo(under, CV_32F);
        for (int y = 0; y < box.height; ++y) {
            const float* s = warped.ptr<float>(y);
            const float* a = cover.ptr<float>(y);
            float* out = under.ptr<float>(y);
            for (int x = 0; x < box.width; ++x) {
                for (int c = 0; c < 3; ++c) {
                    out[3 * x + c] = out[3 * x + c] * (1 - a[x]) + s[3 * x + c] * a[x];
                }
            }
        }
        under.convertTo(target, CV_8U);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(opencvFloat)->Arg(100)->Arg(60);

}  // namespace
