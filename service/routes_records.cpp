// SPDX-License-Identifier: MIT
// The records kept about boards: the files' own, shares, favourites, the error
// library and error messages.
#include "routes.h"

#include <cstring>

#include <optional>

namespace norva::service {

void RecordsService::addRecordRoutes()
{
    const auto selectFiles = [this](Call& call, bool paged) {
        Filter filter;
        filter.raw("delflag = 0", {})
            .equal("createuserid", call["createuserid"])
            .like("origfilename", call["origfilename"])
            .equal("id", call["id"])
            .equal("origfileguid", call["origfileguid"])
            .equal("mongogridfsid", call["mongogridfsid"])
            .equal("origfilesuffix", call["origfilesuffix"])
            .equal("zkcompanycode", call["zkcompanycode"])
            .equal("fileupdateuserid", call["fileupdateuserid"])
            .equal("parentid", call["parentid"])
            .equal("type", call["type"])
            .equal("source", call["source"])
            .equal("isError", call["isError"]);
        return ok(list("SELECT id, origfilename, origfileguid, mongogridfsid, origfilesuffix, zkcompanycode, createuserid, "
                       "fileupdateuserid, updateuserid, parentid, type, source, isError, size, createtime FROM original_files",
                       filter, " ORDER BY id", paged ? &call : nullptr));
    };
    query("/kvr/originalFile/selectOdbppOrigfilemanage", [selectFiles](Call& call) { return selectFiles(call, false); });
    query("/kvr/originalFile/selectOdbppOrigfilemanageByPage", [selectFiles](Call& call) { return selectFiles(call, true); });

    // Sets each field the request gives (null means "leave it").
    const auto update = [this](Call& call, const char* table, const std::vector<const char*>& columns,
                               bool owned) {
        if (!present(call["id"]))
            return refuse("id is required");
        const std::optional<bool> mayChange = owned ? entitled(table, call["id"], call.userId) : true;
        if (mayChange == false)
            return refuse("only the user who added this record may change it", notYours);
        std::string set;
        std::vector<QJsonValue> binds;
        for (const char* column : columns) {
            if (present(call[column])) {
                set += (set.empty() ? "" : ", ") + std::string(column) + " = ?";
                binds.push_back(call[column]);
            }
        }
        if (db.query(std::string("SELECT id FROM ") + table + " WHERE id = ?", {call["id"]}).isEmpty())
            return refuse("no such record");
        if (!set.empty()) {
            binds.push_back(call["id"]);
            db.change(std::string("UPDATE ") + table + " SET " + set + " WHERE id = ?", binds);
        }
        return ok(call["id"], "updated");
    };
    post("/kvr/originalFile/updateOdbppOrigfilemanage", [update](Call& call) {
        return update(call, "original_files",
                      {"origfilename", "mongogridfsid", "origfilesuffix", "zkcompanycode", "parentid", "type", "source",
                       "isError", "fileupdateuserid", "updateuserid"},
                      true);
    });
    post("/kvr/originalFile/deleteOrigfile", [this](Call& call) {
        const long long id = formNumber(formFields(call.request.body), "id");
        if (entitled("original_files", double(id), call.userId) == false)
            return refuse("only the user who uploaded this file may delete it", notYours);
        if (db.change("UPDATE original_files SET delflag = 1 WHERE id = ? AND delflag = 0", {double(id)}) == 0)
            return refuse("no such file");
        return ok(double(id), "delete flag set");
    });

    // ---- Shares and favourites -------------------------------------------
    // Inserts records that are not there yet; reports the boards that were.
    const auto insertMany = [this](const QJsonArray& records, const char* table, const char* boardKey,
                                   const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys,
                                   long long owner) {
        QJsonArray inserted;
        QJsonArray repeated;
        // All of a batch or none of it: a batch cut off half way leaves nothing.
        Transaction transaction(db);
        // One time for the whole batch (reading the clock as local time looks
        // up the time zone's file every time).
        const QJsonValue createdAt = now();
        for (const QJsonValue& value : records) {
            const QJsonObject record = value.toObject();
            // Nobody writes in another's name: the record's user is the caller,
            // whatever it says (else it would stand in the other user's lists,
            // where that user could not remove it).
            const auto field = [&record, owner](const char* key) {
                return std::strcmp(key, "userId") == 0 ? QJsonValue(double(owner)) : service::field(record, key);
            };
            std::string same;
            std::vector<QJsonValue> sameBinds;
            for (const char* key : sameKeys) {
                same += (same.empty() ? "" : " AND ") + std::string(key) + " IS ?";
                sameBinds.push_back(field(key));
            }
            if (!db.query(std::string("SELECT id FROM ") + table + " WHERE " + same, sameBinds).isEmpty()) {
                repeated.append(field(boardKey));
                continue;
            }
            std::string columns;
            std::string marks;
            std::vector<QJsonValue> binds;
            for (const char* key : keys) {
                columns += std::string(key) + ", ";
                marks += "?, ";
                binds.push_back(field(key));
            }
            binds.push_back(createdAt);
            binds.push_back(double(owner));
            db.change(std::string("INSERT INTO ") + table + "(" + columns + "createtime, owner) VALUES(" + marks + "?, ?)",
                      binds);
            inserted.append(double(db.lastInsertId()));
        }
        transaction.commit();
        return std::make_pair(inserted, repeated);
    };
    const auto insertOne = [insertMany](Call& call, const char* table, const char* boardKey,
                                        const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys) {
        const auto [inserted, repeated] =
            insertMany(QJsonArray{call.object}, table, boardKey, keys, sameKeys, call.userId);
        return repeated.isEmpty() ? ok(inserted.first(), "inserted") : refuse("already there");
    };
    const auto insertBatch = [insertMany](Call& call, const char* table, const char* boardKey,
                                          const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys) {
        if (call.array.isEmpty())
            return refuse("nothing to insert");
        const auto [inserted, repeated] = insertMany(call.array, table, boardKey, keys, sameKeys, call.userId);
        if (!repeated.isEmpty())
            return reply(206, QStringLiteral("%1 inserted, %2 already there").arg(inserted.size()).arg(repeated.size()),
                         repeated);
        return ok(inserted, "inserted");
    };
    const auto remove = [this](Call& call, const char* table, bool byUser, bool owned) {
        const auto form = formFields(call.request.body);
        std::vector<QJsonValue> binds{double(formNumber(form, "id"))};
        if (owned && entitled(table, binds.front(), call.userId) == false)
            return refuse("only the user who added this record may remove it", notYours);
        if (byUser)
            binds.push_back(double(formNumber(form, "userId")));
        if (db.change(std::string("DELETE FROM ") + table + " WHERE id = ?" + (byUser ? " AND userId = ?" : ""), binds) == 0)
            return refuse("no such record");
        return ok(binds.front(), "deleted");
    };

    const std::vector<const char*> shareKeys{"userId", "brdId", "acsTypeId", "acsType"};
    const std::vector<const char*> sameShare{"userId", "brdId", "acsTypeId"};
    post("/kvr/share/insertShare",
         [=](Call& call) { return insertOne(call, "shares", "brdId", shareKeys, sameShare); });
    post("/kvr/share/insertMultipleShare",
         [=](Call& call) { return insertBatch(call, "shares", "brdId", shareKeys, sameShare); });
    const auto selectShares = [this](Call& call, bool paged) {
        Filter filter;
        filter.equal("s.userId", call["userId"])
            .like("f.origfilename", call["brdName"])
            .since("s.createtime", call["startTime"])
            .until("s.createtime", call["endTime"]);
        if (call["currentUserId"].toInt() != 0)
            filter.raw("(s.userId = ? OR s.acsTypeId = ?)", {call["currentUserId"], call["currentUserId"]});
        return ok(list("SELECT s.id AS id, s.userId AS userId, s.brdId AS brdId, f.origfilename AS brdName, "
                       "s.acsTypeId AS acsTypeId, s.acsType AS acsType, s.createtime AS createtime "
                       "FROM shares s LEFT JOIN original_files f ON f.id = s.brdId",
                       filter, " ORDER BY s.id", paged ? &call : nullptr));
    };
    query("/kvr/share/selectShare", [selectShares](Call& call) { return selectShares(call, false); });
    query("/kvr/share/selectShareByPage", [selectShares](Call& call) { return selectShares(call, true); });
    post("/kvr/share/deleteShare", [remove](Call& call) { return remove(call, "shares", true, true); });

    const std::vector<const char*> favouriteKeys{"userId", "boardId", "boardName"};
    const std::vector<const char*> sameFavourite{"userId", "boardId"};
    post("/kvr/favourite/insertFavourite",
         [=](Call& call) { return insertOne(call, "favourites", "boardId", favouriteKeys, sameFavourite); });
    post("/kvr/favourite/insertMultipleFavourite",
         [=](Call& call) { return insertBatch(call, "favourites", "boardId", favouriteKeys, sameFavourite); });
    const auto selectFavourites = [this](Call& call, bool paged) {
        Filter filter;
        filter.equal("userId", call["userId"])
            .like("boardName", call["boardName"])
            .since("createtime", call["startTime"])
            .until("createtime", call["endTime"]);
        return ok(list("SELECT id, userId, boardId, boardName, createtime FROM favourites", filter, " ORDER BY id",
                       paged ? &call : nullptr));
    };
    query("/kvr/favourite/selectFavourite", [selectFavourites](Call& call) { return selectFavourites(call, false); });
    query("/kvr/favourite/selectFavouriteByPage", [selectFavourites](Call& call) { return selectFavourites(call, true); });
    post("/kvr/favourite/deleteFavourite", [remove](Call& call) { return remove(call, "favourites", true, true); });

    // ---- Error library and error messages --------------------------------
    const auto insertRecord = [this](Call& call, const char* table, const std::vector<const char*>& keys,
                                     bool owned) {
        std::string columns;
        std::string marks;
        std::vector<QJsonValue> binds;
        for (const char* key : keys) {
            columns += (columns.empty() ? "" : ", ") + std::string(key);
            marks += marks.empty() ? "?" : ", ?";
            binds.push_back(call[key]);
        }
        if (owned) {
            columns += ", owner";
            marks += ", ?";
            binds.push_back(double(call.userId));
        }
        db.change(std::string("INSERT INTO ") + table + "(" + columns + ") VALUES(" + marks + ")", binds);
        return ok(double(db.lastInsertId()), "inserted");
    };
    post("/kvr/errorLibrary/insertErrorLibrary",
         [insertRecord](Call& call) {
             return insertRecord(call, "error_library", {"source", "layer", "errorMessage"}, false);
         });
    post("/kvr/errorLibrary/updateErrorLibrary",
         [update](Call& call) { return update(call, "error_library", {"source", "layer", "errorMessage"}, false); });
    post("/kvr/errorLibrary/deleteErrorLibrary", [remove](Call& call) { return remove(call, "error_library", false, false); });
    const auto selectLibrary = [this](Call& call, bool paged) {
        Filter filter;
        filter.equal("id", call["id"]).equal("source", call["source"]).equal("layer", call["layer"]).like("errorMessage", call["errorMessage"]);
        return ok(list("SELECT id, source, layer, errorMessage FROM error_library", filter, " ORDER BY id",
                       paged ? &call : nullptr));
    };
    query("/kvr/errorLibrary/selectErrorLibrary", [selectLibrary](Call& call) { return selectLibrary(call, false); });
    query("/kvr/errorLibrary/selectErrorLibraryByPage", [selectLibrary](Call& call) { return selectLibrary(call, true); });

    const std::vector<const char*> messageColumns{"brdId", "isReappear", "remark", "gridX", "gridY", "source",
                                                  "layer", "priority", "libraryId", "errorMessage"};
    post("/kvr/errorMessage/insertErrorMessage",
         [insertRecord, messageColumns](Call& call) {
             return insertRecord(call, "error_messages", messageColumns, true);
         });
    post("/kvr/errorMessage/updateErrorMessage",
         [update, messageColumns](Call& call) { return update(call, "error_messages", messageColumns, true); });
    post("/kvr/errorMessage/deleteErrorMessage", [remove](Call& call) { return remove(call, "error_messages", false, true); });
    const auto selectMessages = [this](Call& call, bool paged) {
        Filter filter;
        filter.equal("brdId", call["brdId"])
            .equal("isReappear", call["isReappear"])
            .like("remark", call["remark"])
            .equal("gridX", call["gridX"])
            .equal("gridY", call["gridY"])
            .equal("source", call["source"])
            .equal("layer", call["layer"])
            .equal("priority", call["priority"])
            .equal("libraryId", call["libraryId"])
            .like("errorMessage", call["errorMessage"]);
        return ok(list("SELECT id, brdId, isReappear, remark, gridX, gridY, source, layer, priority, libraryId, "
                       "errorMessage FROM error_messages",
                       filter, " ORDER BY id", paged ? &call : nullptr));
    };
    query("/kvr/errorMessage/selectErrorMessage", [selectMessages](Call& call) { return selectMessages(call, false); });
    query("/kvr/errorMessage/selectErrorMessageByPage", [selectMessages](Call& call) { return selectMessages(call, true); });
}

} // namespace norva::service
