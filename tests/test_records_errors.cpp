// SPDX-License-Identifier: MIT
// Original file records, the error library and error messages: the renamed
// keys, raw versus optional raw, and where a failure's "data" comes from.
#include "support/operation_table.h"

#include "norva_api_qt.h"

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

CaseList familyCases()
{
    const QByteArray allNullFileFilter =
        R"({"createuserid":null,"fileupdateuserid":null,"id":null,"isError":null,"mongogridfsid":null,)"
        R"("origfileguid":null,"origfilename":null,"origfilesuffix":null,"parentid":null,"source":null,"type":null,"zkcompanycode":null})";
    const QByteArray fileFilterFromEveryKey =
        R"({"createuserid":1,"fileupdateuserid":8,"id":3,"isError":12,"mongogridfsid":5,"origfileguid":"g",)"
        R"("origfilename":"o","origfilesuffix":"s","parentid":9,"source":11,"type":10,"zkcompanycode":"c"})";

    CaseList cases{
        // Original file queries: twelve argument keys, most renamed.
        {"select_origfiles_manage maps every argument key", norva_sdk_select_origfiles_manage,
         R"({"userid":1,"origfilename":"o","board_id":3,"origfileguid":"g","mongofs_id":5,"file_suffix":"s","company_code":"c",)"
         R"("file_update_uerid":8,"parent_id":9,"type":10,"source":11,"iserror":12,"createuserid":99})",
         ScriptedReply::json(R"({"code":200,"data":{"total":1}})"),
         post("/kvr/originalFile/selectOdbppOrigfilemanage", fileFilterFromEveryKey),
         R"({"data":{"total":1},"message":"select origfile manage table success","status":200})", {}},
        {"select_origfiles_manage failure returns the request", norva_sdk_select_origfiles_manage, "{}",
         ScriptedReply::json(R"({"code":500,"data":1})"), post("/kvr/originalFile/selectOdbppOrigfilemanage", allNullFileFilter),
         R"({"data":)" + sent(allNullFileFilter) + R"(,"message":"select origfile manage table fail","status":400})", {}},
        {"select_origfiles_manage_by_page without pages sends no page keys", norva_sdk_select_origfiles_manage_by_page, "{}",
         ScriptedReply::json(R"({"code":200})"),
         post("/kvr/originalFile/selectOdbppOrigfilemanageByPage", allNullFileFilter),
         R"({"message":"select origfile manage table by page success","status":200})", {}},
        {"select_origfiles_manage_by_page keeps a text page", norva_sdk_select_origfiles_manage_by_page,
         R"({"which_page":"2","data_num_in_each_page":5})", ScriptedReply::json(R"({"code":200,"data":[]})"),
         post("/kvr/originalFile/selectOdbppOrigfilemanageByPage",
              QByteArray(allNullFileFilter).replace(R"("origfilesuffix":null,)", R"("origfilesuffix":null,"pageNo":"2","pageSize":5,)")),
         R"({"data":[],"message":"select origfile manage table by page success","status":200})", {}},

        // Original file update: userid twice, raw keys absent when not given.
        {"update_origfiles_manage sends userid twice", norva_sdk_update_origfiles_manage,
         R"({"origfile_id":4,"userid":"u7","origfilename":"n","companycode":"c","isError":true})",
         ScriptedReply::json(R"({"code":200,"data":"ok"})"),
         post("/kvr/originalFile/updateOdbppOrigfilemanage",
              R"({"fileupdateuserid":"u7","id":4,"isError":true,"mongogridfsid":null,"origfilename":"n","origfilesuffix":null,)"
              R"("parentid":null,"source":null,"type":null,"updateuserid":"u7","zkcompanycode":"c"})"),
         R"({"data":"ok","message":"update origfile manage table success","status":200})", {}},
        {"update_origfiles_manage without id or userid; failure returns the request", norva_sdk_update_origfiles_manage, "{}",
         ScriptedReply::json(R"({"code":1})"),
         post("/kvr/originalFile/updateOdbppOrigfilemanage",
              R"({"isError":null,"mongogridfsid":null,"origfilename":null,"origfilesuffix":null,"parentid":null,"source":null,"type":null,"zkcompanycode":null})"),
         R"({"data":"{\"isError\":null,\"mongogridfsid\":null,\"origfilename\":null,\"origfilesuffix\":null,\"parentid\":null,\"source\":null,\"type\":null,\"zkcompanycode\":null}","message":"update origfile manage table fail","status":400})", {}},
        {"updel_origfiles_manage failure keeps data and msg as null", norva_sdk_updel_origfiles_manage,
         R"({"data":{"id":"5","userId":2}})", ScriptedReply::json(R"({"code":3})"),
         formPost("/kvr/originalFile/deleteOrigfile", "id=0&userId=2"),
         R"({"data":null,"message":"update delflag of this origfile manage table record fail","msg":null,"status":400})", {}},
        {"updel_origfiles_manage success", norva_sdk_updel_origfiles_manage, R"({"data":{"id":5,"userId":2}})",
         ScriptedReply::json(R"({"code":200,"msg":"m","data":[5]})"), formPost("/kvr/originalFile/deleteOrigfile", "id=5&userId=2"),
         R"({"data":[5],"message":"update delflag of this origfile manage table record success","msg":"m","status":200})", {}},

        // Error library: insert sends only what is given, update and selects null.
        {"insert_error_library without layer", norva_sdk_insert_error_library, R"({"source":"aoi","errorMessage":"short"})",
         ScriptedReply::json(R"({"code":200,"data":12})"),
         post("/kvr/errorLibrary/insertErrorLibrary", R"({"errorMessage":"short","source":"aoi"})"),
         R"({"data":12,"message":"insert error library table success","status":200})", {}},
        {"insert_error_library failure carries the reply's data", norva_sdk_insert_error_library, "{}",
         ScriptedReply::json(R"({"code":500,"data":"dup"})"), post("/kvr/errorLibrary/insertErrorLibrary", "{}"),
         R"({"data":"dup","message":"insert error library table fail","status":400})", {}},
        {"update_error_library without id sends nulls", norva_sdk_update_error_library, R"({"layer":2})",
         ScriptedReply::json(R"({"code":500})"),
         post("/kvr/errorLibrary/updateErrorLibrary", R"({"errorMessage":null,"layer":2,"source":null})"),
         R"({"message":"update error library table fail","status":400})", {}},
        {"select_error_library with no filters", norva_sdk_select_error_library, "{}", ScriptedReply::json(R"({"code":200,"data":[]})"),
         post("/kvr/errorLibrary/selectErrorLibrary", R"({"errorMessage":null,"id":null,"layer":null,"source":null})"),
         R"({"data":[],"message":"select error library table success","status":200})", {}},
        {"select_error_library_by_page failure returns the request", norva_sdk_select_error_library_by_page,
         R"({"which_page":"1","id":4})", ScriptedReply::json(R"({"code":9,"data":[]})"),
         post("/kvr/errorLibrary/selectErrorLibraryByPage", R"({"errorMessage":null,"id":4,"layer":null,"pageNo":"1","source":null})"),
         R"({"data":"{\"errorMessage\":null,\"id\":4,\"layer\":null,\"pageNo\":\"1\",\"source\":null}","message":"select error library table by page fail","status":400})", {}},
        {"delete_error_library sends id alone", norva_sdk_delete_error_library, R"({"data":{"id":7,"userId":3}})",
         ScriptedReply::json(R"({"code":200,"data":true})"), formPost("/kvr/errorLibrary/deleteErrorLibrary", "id=7"),
         R"({"API_msg":null,"data":true,"message":"real delete error library table success","status":200})", {}},
        {"delete_error_library with a fractional id sends 0", norva_sdk_delete_error_library, R"({"data":{"id":7.5}})",
         ScriptedReply::json(R"({"code":4,"msg":"no","data":1})"), formPost("/kvr/errorLibrary/deleteErrorLibrary", "id=0"),
         R"({"API_msg":"no","message":"real delete error library table fail","status":400})", {}},

        // Error messages: boardId, reMark and library_id are renamed; selects have no id.
        {"insert_error_msg renames three keys and sends only those given", norva_sdk_insert_error_msg,
         R"({"boardId":9,"reMark":"r","library_id":2,"gridX":"1.5","brdId":8,"remark":"x","libraryId":1})",
         ScriptedReply::json(R"({"code":200})"),
         post("/kvr/errorMessage/insertErrorMessage", R"({"brdId":9,"gridX":"1.5","libraryId":2,"remark":"r"})"),
         R"({"message":"insert error msg table success","status":200})", {}},
        {"update_error_msg with only an id", norva_sdk_update_error_msg, R"({"id":5})",
         ScriptedReply::json(R"({"code":200,"data":null})"),
         post("/kvr/errorMessage/updateErrorMessage",
              R"({"brdId":null,"errorMessage":null,"gridX":null,"gridY":null,"id":5,"isReappear":null,"layer":null,"libraryId":null,"priority":null,"remark":null,"source":null})"),
         R"({"data":null,"message":"update error msg table success","status":200})", {}},
        {"select_error_msg ignores an id", norva_sdk_select_error_msg, R"({"id":5,"isReappear":false})",
         ScriptedReply::json(R"({"code":200,"data":[]})"),
         post("/kvr/errorMessage/selectErrorMessage",
              R"({"brdId":null,"errorMessage":null,"gridX":null,"gridY":null,"isReappear":false,"layer":null,"libraryId":null,"priority":null,"remark":null,"source":null})"),
         R"({"data":[],"message":"select error msg table success","status":200})", {}},
        {"select_error_msg_by_page failure returns the request", norva_sdk_select_error_msg_by_page,
         R"({"which_page":1,"data_num_in_each_page":"20"})", ScriptedReply::json(R"({"code":0})"),
         post("/kvr/errorMessage/selectErrorMessageByPage",
              R"({"brdId":null,"errorMessage":null,"gridX":null,"gridY":null,"isReappear":null,"layer":null,"libraryId":null,"pageNo":1,"pageSize":"20","priority":null,"remark":null,"source":null})"),
         R"({"data":)" + sent(R"({"brdId":null,"errorMessage":null,"gridX":null,"gridY":null,"isReappear":null,"layer":null,"libraryId":null,"pageNo":1,"pageSize":"20","priority":null,"remark":null,"source":null})")
             + R"(,"message":"select error msg table by page fail","status":400})", {}},
        {"delete_error_msg", norva_sdk_delete_error_msg, R"({"data":{"id":-3}})", ScriptedReply::json(R"({"code":200,"msg":"m"})"),
         formPost("/kvr/errorMessage/deleteErrorMessage", "id=-3"),
         R"({"API_msg":"m","message":"real delete error msg table success","status":200})", {}},
    };

    const auto add = [&cases](const CaseList& more) { cases.insert(cases.end(), more.begin(), more.end()); };
    add(httpClassCases("select_origfiles_manage", norva_sdk_select_origfiles_manage, "{}",
                       post("/kvr/originalFile/selectOdbppOrigfilemanage", allNullFileFilter), true, sent(allNullFileFilter)));
    add(httpClassCases("updel_origfiles_manage", norva_sdk_updel_origfiles_manage, "{}",
                       formPost("/kvr/originalFile/deleteOrigfile", "id=0&userId=0"), true, R"("id=0&userId=0")"));
    add(httpClassCases("insert_error_library", norva_sdk_insert_error_library, "{}",
                       post("/kvr/errorLibrary/insertErrorLibrary", "{}"), true, R"("{}")"));
    add(httpClassCases("delete_error_msg", norva_sdk_delete_error_msg, R"({"data":{"id":7}})",
                       formPost("/kvr/errorMessage/deleteErrorMessage", "id=7"), true, R"("id=7")"));
    add(argumentFailureCases("update_error_msg", norva_sdk_update_error_msg));
    return cases;
}
