// SPDX-License-Identifier: MIT
// Planner models. GETs without a token; the Content-Type is the form one
// although no form is sent.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

constexpr bool withoutEcho = false;

} // namespace

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id(std::string argument)
{
    static const Operation allModels{
        "/tavlin/tavlinModel/selectAllModel",
        Access::Open,
        getQuery(contentType::formText),
        getQueryOutcome("select all models success", "select all models fail"),
        withoutEcho,
    };
    return allModels.call(std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_latest_model_id(std::string argument)
{
    static const Operation latestModel{
        "/tavlin/tavlinModel/selectNewModel",
        Access::Open,
        getQuery(contentType::formText),
        getQueryOutcome("select latest model success", "select latest model fail"),
        withoutEcho,
    };
    return latestModel.call(std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_process_parameters(std::string argument)
{
    static const Operation processParameters{
        "/tavlin/tavlinModel/selectParams",
        Access::Open,
        getQuery(contentType::formText, {{"id", "modelId", Read::Integer}}, "data"),
        getQueryOutcome("select process parameters success", "select process parameters fail"),
        withoutEcho,
    };
    return processParameters.call(std::move(argument));
}
