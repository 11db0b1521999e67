// SPDX-License-Identifier: MIT
// The mall's orders and files, and the planner's models: open to anyone.
#include "routes.h"

namespace norva::service {

void RecordsService::addMallRoutes()
{
    // ---- Mall --------------------------------------------------------------
    get("/mall/order/selectBrdId", [this](Call& call) {
        const QJsonArray rows = db.query("SELECT boardId FROM mall_orders WHERE orderNum = ?",
                                         {QString::fromStdString(call.request.queryValue("orderNum"))});
        if (rows.isEmpty())
            return refuse("no such order", 404);
        return ok(rows.first().toObject(), "found");
    });
    query("/mall/order/selectOrderByPage", [this](Call& call) {
        Filter filter;
        filter.equal("userId", call["userId"]).equal("boardId", call["boardId"]).like("orderNum", call["orderNum"]);
        return ok(list("SELECT id, orderNum, userId, boardId, createtime FROM mall_orders", filter, " ORDER BY id", &call));
    });
    query("/mall/originalFile/selectOdbppOrigfilemanageByPage", [this](Call& call) {
        Filter filter;
        filter.raw("delflag = 0", {}).equal("createuserid", call["createuserid"]);
        return ok(list("SELECT id, origfilename, origfilesuffix, createuserid, size, createtime FROM original_files",
                       filter, " ORDER BY id", &call));
    });
    get("/mall/originalFile/getFileName", [this](Call& call) {
        Call paged = call;
        paged.object = {{"pageNo", QString::fromStdString(call.request.queryValue("pageNo"))},
                        {"pageSize", QString::fromStdString(call.request.queryValue("pageSize"))}};
        Filter filter;
        filter.raw("delflag = 0", {});
        return ok(list("SELECT id AS boardId, origfilename AS fileName FROM original_files", filter, " ORDER BY id", &paged));
    });
    query("/mall/originalFile/downloadFile", [this](Call& call) {
        return sendFile(formNumber(formFields(call.request.body), "id"), 204);
    });

    // ---- Planner ------------------------------------------------------------
    get("/tavlin/tavlinModel/selectAllModel",
        [this](Call&) { return ok(db.query("SELECT id, name, createtime FROM planner_models ORDER BY id")); });
    get("/tavlin/tavlinModel/selectNewModel", [this](Call&) {
        const QJsonArray rows = db.query("SELECT id, name, createtime FROM planner_models ORDER BY id DESC LIMIT 1");
        return rows.isEmpty() ? refuse("no models", 404) : ok(rows.first());
    });
    get("/tavlin/tavlinModel/selectParams", [this](Call& call) {
        const QJsonArray rows = db.query("SELECT params FROM planner_models WHERE id = ?",
                                         {double(std::strtoll(call.request.queryValue("id").c_str(), nullptr, 10))});
        if (rows.isEmpty())
            return refuse("no such model", 404);
        return ok(QJsonDocument::fromJson(rows.first().toObject().value("params").toString().toUtf8()).object());
    });
}

} // namespace norva::service
