// SPDX-License-Identifier: MIT
// Shares and favourites: how each argument key reaches the service, and how
// each reply becomes the result document.
#include "support/operation_table.h"

#include "norva_api_qt.h"

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

CaseList familyCases()
{
    const QByteArray shareRecord = R"({"acsType":1,"acsTypeId":4,"brdId":0,"userId":3})";
    const QByteArray favouriteRecord = R"({"boardId":9,"boardName":"top","userId":3})";
    const QByteArray emptyShareFilter =
        R"({"brdName":null,"currentUserId":0,"endTime":null,"startTime":null,"userId":null})";
    const QString refused = R"({"message":"json parameters error","status":400})";

    CaseList cases{
        // add2share: integers only, so a board id given as text goes out as 0.
        {"add2share success", norva_sdk_add2share, R"({"userid":3,"boardid":"9","sharewith_id":4,"sharetype":1})",
         ScriptedReply::json(R"({"code":200,"msg":"m","data":1})"), post("/kvr/share/insertShare", shareRecord),
         R"({"message":"add to share table success","status":200})", {}},
        {"add2share failure without msg gives an empty error_msg", norva_sdk_add2share,
         R"({"userid":3,"boardid":"9","sharewith_id":4,"sharetype":1})", ScriptedReply::json(R"({"code":500,"data":5})"),
         post("/kvr/share/insertShare", shareRecord),
         R"({"data":)" + sent(shareRecord) + R"(,"error_msg":"","message":"add to share table fail","status":400})", {}},
        {"add2share 206 is a failure", norva_sdk_add2share, R"({})", ScriptedReply::json(R"({"code":206,"msg":7})"),
         post("/kvr/share/insertShare", R"({"acsType":0,"acsTypeId":0,"brdId":0,"userId":0})"),
         R"({"data":"{\"acsType\":0,\"acsTypeId\":0,\"brdId\":0,\"userId\":0}","error_msg":7,"message":"add to share table fail","status":400})", {}},

        // Batches skip non-objects in order, and refuse only an empty input array.
        {"add2share_batch 206 names the repeated boards", norva_sdk_add2share_batch,
         R"({"data":[{"userid":1,"boardid":2},5,{"userid":3,"sharetype":4}]})",
         ScriptedReply::json(R"({"code":206,"msg":"dup","data":[2]})"),
         post("/kvr/share/insertMultipleShare",
              R"([{"acsType":0,"acsTypeId":0,"brdId":2,"userId":1},{"acsType":4,"acsTypeId":0,"brdId":0,"userId":3}])"),
         R"({"Repeated_share_boardIds":[2],"error_msg":"dup","message":"batch insert to share table partly success","status":206})", {}},
        {"add2share_batch 206 without msg or data", norva_sdk_add2share_batch, R"({"data":[{}]})",
         ScriptedReply::json(R"({"code":206})"),
         post("/kvr/share/insertMultipleShare", R"([{"acsType":0,"acsTypeId":0,"brdId":0,"userId":0}])"),
         R"({"Repeated_share_boardIds":null,"error_msg":null,"message":"batch insert to share table partly success","status":206})", {}},
        {"add2share_batch of only non-objects sends []", norva_sdk_add2share_batch, R"({"data":[1,"x",null]})",
         ScriptedReply::json(R"({"code":500})"), post("/kvr/share/insertMultipleShare", "[]"),
         R"({"data":"[]","error_msg":null,"message":"batch insert to share table fail","status":400})", {}},
        {"add2share_batch success", norva_sdk_add2share_batch, R"({"data":[{}]})", ScriptedReply::json(R"({"code":200})"),
         post("/kvr/share/insertMultipleShare", R"([{"acsType":0,"acsTypeId":0,"brdId":0,"userId":0}])"),
         R"({"message":"batch insert to share table success","status":200})", {}},
        {"add2share_batch refuses a missing array", norva_sdk_add2share_batch, R"({})", ScriptedReply(), nothingSent(), refused, {}},
        {"add2share_batch refuses an object", norva_sdk_add2share_batch, R"({"data":{"userid":1}})", ScriptedReply(), nothingSent(), refused, {}},
        {"add2share_batch refuses an empty array", norva_sdk_add2share_batch, R"({"data":[]})", ScriptedReply(), nothingSent(), refused, {}},

        // Share filters: null for what is left out, currentUserId always an integer.
        {"select_share with no filters", norva_sdk_select_share, R"({})",
         ScriptedReply::json(R"({"code":200,"data":[{"id":1}]})"), post("/kvr/share/selectShare", emptyShareFilter),
         R"({"data":[{"id":1}],"message":"select share table success","status":200})", {}},
        {"select_share passes filters unconverted; failure returns the request", norva_sdk_select_share,
         R"({"userid":"3","boardname":7,"currentUserId":2,"start_time":"2024-01-01","end_time":null})",
         ScriptedReply::json(R"({"code":400,"data":"ignored"})"),
         post("/kvr/share/selectShare", R"({"brdName":7,"currentUserId":2,"endTime":null,"startTime":"2024-01-01","userId":"3"})"),
         R"({"data":)" + sent(R"({"brdName":7,"currentUserId":2,"endTime":null,"startTime":"2024-01-01","userId":"3"})")
             + R"(,"message":"select share table fail","status":400})", {}},
        {"select_share_by_page reads pages as integers", norva_sdk_select_share_by_page,
         R"({"which_page":"3","data_num_in_each_page":10})", ScriptedReply::json(R"({"code":200})"),
         post("/kvr/share/selectShareByPage",
              R"({"brdName":null,"currentUserId":0,"endTime":null,"pageNo":0,"pageSize":10,"startTime":null,"userId":null})"),
         R"({"message":"select share table by page success","status":200})", {}},

        // Removal: form text, id first, signs kept, nothing encoded.
        {"delete_share success carries msg and data", norva_sdk_delete_share, R"({"data":{"userId":3,"id":-7}})",
         ScriptedReply::json(R"({"code":200,"msg":"gone","data":{"n":1}})"), formPost("/kvr/share/deleteShare", "id=-7&userId=3"),
         R"({"API_msg":"gone","data":{"n":1},"message":"real delete share table success","status":200})", {}},
        {"delete_share failure drops the reply's data", norva_sdk_delete_share, R"({})",
         ScriptedReply::json(R"({"code":1,"data":4})"), formPost("/kvr/share/deleteShare", "id=0&userId=0"),
         R"({"API_msg":null,"message":"real delete share table fail","status":400})", {}},

        // Favourites: boardname is raw (absent stays absent), pages are raw.
        {"add2favorite success", norva_sdk_add2favorite, R"({"userid":3,"boardid":9,"boardname":"top"})",
         ScriptedReply::json(R"({"code":200})"), post("/kvr/favourite/insertFavourite", favouriteRecord),
         R"({"message":"add 2 favorite table success","status":200})", {}},
        {"add2favorite without boardname; failure without msg", norva_sdk_add2favorite, R"({"userid":3,"boardid":"9"})",
         ScriptedReply::json(R"({"code":500})"), post("/kvr/favourite/insertFavourite", R"({"boardId":0,"userId":3})"),
         R"({"API_msg":"","data":"{\"boardId\":0,\"userId\":3}","message":"add 2 favorite table fail","status":400})", {}},
        {"add2favorite_batch 206", norva_sdk_add2favorite_batch, R"({"data":[{"userid":3,"boardid":9,"boardname":"top"},true]})",
         ScriptedReply::json(R"({"code":206,"msg":"dup","data":[9]})"),
         post("/kvr/favourite/insertMultipleFavourite", "[" + favouriteRecord + "]"),
         R"({"API_msg":"dup","Repeted_BoardIds":[9],"message":"batch add 2 favorite table partly success","status":206})", {}},
        {"add2favorite_batch 206 without msg or data", norva_sdk_add2favorite_batch, R"({"data":[{}]})",
         ScriptedReply::json(R"({"code":206})"), post("/kvr/favourite/insertMultipleFavourite", R"([{"boardId":0,"userId":0}])"),
         R"({"API_msg":null,"Repeted_BoardIds":null,"message":"batch add 2 favorite table partly success","status":206})", {}},
        {"add2favorite_batch failure", norva_sdk_add2favorite_batch, R"({"data":[{}]})",
         ScriptedReply::json(R"({"code":3,"msg":"no"})"), post("/kvr/favourite/insertMultipleFavourite", R"([{"boardId":0,"userId":0}])"),
         R"({"API_msg":"no","data":"[{\"boardId\":0,\"userId\":0}]","message":"batch add 2 favorite table fail","status":400})", {}},
        {"add2favorite_batch refuses an empty array", norva_sdk_add2favorite_batch, R"({"data":[]})", ScriptedReply(), nothingSent(), refused, {}},
        {"select_favorite with no filters", norva_sdk_select_favorite, R"({})", ScriptedReply::json(R"({"code":200,"data":[]})"),
         post("/kvr/favourite/selectFavourite", R"({"boardName":null,"endTime":null,"startTime":null,"userId":null})"),
         R"({"data":[],"message":"select favorite table success","status":200})", {}},
        {"select_favorite_by_page keeps a text page and leaves a missing size out", norva_sdk_select_favorite_by_page,
         R"({"which_page":"3","boardname":"b"})", ScriptedReply::json(R"({"code":2})"),
         post("/kvr/favourite/selectFavouriteByPage", R"({"boardName":"b","endTime":null,"pageNo":"3","startTime":null,"userId":null})"),
         R"({"data":)" + sent(R"({"boardName":"b","endTime":null,"pageNo":"3","startTime":null,"userId":null})")
             + R"(,"message":"select favorite table by page fail","status":400})", {}},
        {"delete_favorite", norva_sdk_delete_favorite, R"({"data":{"id":7,"userId":3}})", ScriptedReply::json(R"({"code":200})"),
         formPost("/kvr/favourite/deleteFavourite", "id=7&userId=3"),
         R"({"API_msg":null,"message":"real delete favorite table success","status":200})", {}},
    };

    const auto add = [&cases](const CaseList& more) { cases.insert(cases.end(), more.begin(), more.end()); };
    add(httpClassCases("add2share", norva_sdk_add2share, "{}", post("/kvr/share/insertShare", R"({"acsType":0,"acsTypeId":0,"brdId":0,"userId":0})"),
                       true, sent(R"({"acsType":0,"acsTypeId":0,"brdId":0,"userId":0})")));
    add(httpClassCases("select_share_by_page", norva_sdk_select_share_by_page, "{}",
                       post("/kvr/share/selectShareByPage", R"({"brdName":null,"currentUserId":0,"endTime":null,"pageNo":0,"pageSize":0,"startTime":null,"userId":null})"),
                       true, sent(R"({"brdName":null,"currentUserId":0,"endTime":null,"pageNo":0,"pageSize":0,"startTime":null,"userId":null})")));
    add(httpClassCases("delete_share", norva_sdk_delete_share, R"({"data":{"id":7,"userId":3}})",
                       formPost("/kvr/share/deleteShare", "id=7&userId=3"), true, R"("id=7&userId=3")"));
    add(httpClassCases("add2favorite_batch", norva_sdk_add2favorite_batch, R"({"data":[{}]})",
                       post("/kvr/favourite/insertMultipleFavourite", R"([{"boardId":0,"userId":0}])"), true,
                       sent(R"([{"boardId":0,"userId":0}])")));
    add(httpClassCases("delete_favorite", norva_sdk_delete_favorite, R"({})",
                       formPost("/kvr/favourite/deleteFavourite", "id=0&userId=0"), true, R"("id=0&userId=0")"));
    add(argumentFailureCases("select_favorite", norva_sdk_select_favorite));
    return cases;
}
